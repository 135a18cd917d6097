#!/usr/bin/env bash
# Makes the Debian packages of a build (scripts/package.sh), unpacks them into
# a scratch root with dpkg -x and checks them as a user of the packages sees
# them:
#   - the control fields: computed dependencies, the packages' own relations;
#   - the files: library and SONAME link, headers, CMake package, tarnwick.pc,
#     the programs, the agent's unit and its configuration file (a conffile);
#   - the consumer program of tests/consumer builds against the unpacked -dev
#     package with find_package(Tarnwick) and with pkg-config, and runs;
#   - the unpacked demo_agent answers the unpacked demo_control over SSL;
#   - lintian reports no error ("E:" line) on the three packages.
#
#   run.sh --build-dir=DIR --scratch=DIR [--soversion=N]
#
# Exits 77 (skipped) when dpkg-deb, dpkg-shlibdeps or lintian is missing. The
# scratch directory is removed and made anew on every run.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source_dir=$(cd "$here/../.." && pwd)

build_dir=
scratch=
soversion=6
for arg in "$@"; do
    case "$arg" in
        --build-dir=*) build_dir=${arg#*=} ;;
        --scratch=*) scratch=${arg#*=} ;;
        --soversion=*) soversion=${arg#*=} ;;
        *) echo "run.sh: unknown argument '$arg'" >&2; exit 2 ;;
    esac
done
if [[ -z "$build_dir" || -z "$scratch" ]]; then
    echo "usage: run.sh --build-dir=DIR --scratch=DIR [--soversion=N]" >&2
    exit 2
fi

for tool in dpkg-deb dpkg-shlibdeps lintian; do
    if ! command -v "$tool" >/dev/null 2>&1; then
        echo "package_install: SKIPPED: $tool is not installed (scripts/install-deps.sh installs dpkg-dev and lintian)"
        exit 77
    fi
done

fail() {
    echo "package_install: FAILED: $*" >&2
    exit 1
}

case "$scratch" in
    */package-test) ;;
    *) fail "refusing to use '$scratch' as scratch directory (must end in /package-test)" ;;
esac
rm -rf "$scratch"
mkdir -p "$scratch"
agent_pid=
cleanup() {
    if [[ -n $agent_pid ]] && kill -0 "$agent_pid" 2>/dev/null; then
        kill -KILL "$agent_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT

echo "-- scripts/package.sh --build-dir=$build_dir"
started=$(date +%s)
mapfile -t debs < <("$source_dir/scripts/package.sh" --build-dir="$build_dir" \
    --output="$scratch/debs" 2>"$scratch/package.log") ||
    { cat "$scratch/package.log" >&2; fail "scripts/package.sh"; }
[[ ${#debs[@]} -eq 3 ]] || { cat "$scratch/package.log" >&2; fail "expected 3 packages, got: ${debs[*]}"; }
echo "   made in $(($(date +%s) - started)) s: $(basename -a "${debs[@]}" | xargs)"
lib_deb=${debs[0]}
dev_deb=${debs[1]}
examples_deb=${debs[2]}
[[ "$(basename "$lib_deb")" == "libtarnwick${soversion}_"* ]] || fail "first package is $(basename "$lib_deb"), not libtarnwick$soversion"

echo "-- control fields"
field() { dpkg-deb --field "$1" "$2"; }
version=$(field "$lib_deb" Version)
for deb in "${debs[@]}"; do
    echo "   $(field "$deb" Package) $(field "$deb" Version) ($(field "$deb" Section)): $(field "$deb" Depends)"
    [[ "$(field "$deb" Version)" == "$version" ]] || fail "$(basename "$deb") has another version than $version"
    [[ -n "$(field "$deb" Maintainer)" ]] || fail "$(basename "$deb") has no maintainer"
done
lib_depends=$(field "$lib_deb" Depends)
# Computed by dpkg-shlibdeps from what the library links: ACE, libcurl,
# libxml2, OpenSSL, libcap, the C and C++ runtimes.
for dep in 'libace-[0-9.]* (' 'libace-ssl-[0-9.]* (' 'libcurl4 (' 'libxml2 (' 'libssl3 (' 'libcap2 (' 'libc6 (' 'libstdc++6 ('; do
    grep -q "\(^\|, \)$dep" <<<"$lib_depends" || fail "libtarnwick$soversion does not depend on '$dep...': $lib_depends"
done
grep -q "libtarnwick$soversion (= $version)" <<<"$(field "$dev_deb" Depends)" ||
    fail "libtarnwick-dev does not depend on libtarnwick$soversion (= $version)"
grep -q "libace-dev" <<<"$(field "$dev_deb" Depends)" || fail "libtarnwick-dev does not depend on libace-dev"
grep -q "libtarnwick$soversion (= $version)" <<<"$(field "$examples_deb" Depends)" ||
    fail "tarnwick-examples does not depend on libtarnwick$soversion (= $version)"
dpkg-deb --ctrl-tarfile "$lib_deb" | tar -xOf - ./shlibs >"$scratch/shlibs"
grep -qx "libtarnwick $soversion libtarnwick$soversion (>= $version)" "$scratch/shlibs" ||
    fail "unexpected shlibs file: $(cat "$scratch/shlibs")"
dpkg-deb --ctrl-tarfile "$lib_deb" | tar -xOf - ./triggers | grep -qx "activate-noawait ldconfig" ||
    fail "libtarnwick$soversion does not activate the ldconfig trigger"
dpkg-deb --ctrl-tarfile "$examples_deb" | tar -xOf - ./conffiles | grep -qx "/etc/tarnwick/demo_agent.conf" ||
    fail "/etc/tarnwick/demo_agent.conf is not a conffile"

echo "-- dpkg -x into $scratch/root"
root=$scratch/root
for deb in "${debs[@]}"; do
    dpkg -x "$deb" "$root"
done
usr=$root/usr
libdir=$(dirname "$(find "$usr/lib" -name "libtarnwick.so.$soversion" | head -n 1)")
[[ "$libdir" == "$usr/lib"* ]] || fail "no libtarnwick.so.$soversion under /usr/lib"
lib=$(find "$libdir" -maxdepth 1 -name 'libtarnwick.so.*.*' -type f | head -n 1)
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[[ "$soname" == "libtarnwick.so.$soversion" ]] || fail "SONAME is '$soname'"
readelf -S "$lib" | grep -q '\.debug_info' && fail "$(basename "$lib") is not stripped"
[[ -L "$libdir/libtarnwick.so" ]] || fail "libtarnwick.so link missing"
[[ -f "$usr/include/tarnwick/message_header.h" ]] || fail "headers not under /usr/include/tarnwick"
[[ ! -e "$usr/include/tarnwick/xml.h" ]] || fail "internal header xml.h is packaged"
[[ -f "$libdir/cmake/Tarnwick/TarnwickConfig.cmake" ]] || fail "CMake package missing"
grep -qx 'prefix=/usr' "$libdir/pkgconfig/tarnwick.pc" || fail "tarnwick.pc does not name the prefix /usr"
for program in demo_agent demo_control; do
    [[ -x "$usr/bin/$program" ]] || fail "/usr/bin/$program missing"
    readelf -d "$usr/bin/$program" | grep -q 'R.*PATH' && fail "/usr/bin/$program has an RPATH"
    [[ -f "$usr/share/man/man1/$program.1.gz" ]] || fail "manual page of $program missing"
done
unit=$usr/lib/systemd/system/demo_agent.service
[[ -f "$unit" ]] || fail "demo_agent.service missing"
grep -qx 'ExecStart=/usr/bin/demo_agent --configfile=/etc/tarnwick/demo_agent.conf' "$unit" ||
    fail "unexpected ExecStart in the unit: $(grep ExecStart "$unit")"
grep -qx 'Type=notify' "$unit" || fail "the unit is not Type=notify"
[[ -f "$root/etc/tarnwick/demo_agent.conf" ]] || fail "/etc/tarnwick/demo_agent.conf missing"
for deb in libtarnwick$soversion libtarnwick-dev tarnwick-examples; do
    [[ -f "$usr/share/doc/$deb/copyright" && -f "$usr/share/doc/$deb/changelog.Debian.gz" ]] ||
        fail "$deb lacks its copyright file or changelog"
done
echo "   $(find "$root" -type f | wc -l) files"

echo "-- find_package(Tarnwick) consumer"
cmake -S "$source_dir/tests/consumer" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$usr" \
    -DCMAKE_BUILD_TYPE=Release >"$scratch/configure.log" 2>&1 ||
    { cat "$scratch/configure.log" >&2; fail "configuring the consumer"; }
cmake --build "$scratch/build" >"$scratch/build.log" 2>&1 ||
    { cat "$scratch/build.log" >&2; fail "building the consumer"; }
grep -q "$libdir/cmake/Tarnwick" "$scratch/build/CMakeCache.txt" ||
    fail "find_package did not take the unpacked package"
resolved=$(LD_LIBRARY_PATH="$libdir" ldd "$scratch/build/app" | sed -n 's/.*libtarnwick\.so[^ ]* => \([^ ]*\).*/\1/p')
[[ "$resolved" == "$libdir"/* ]] || fail "consumer resolves libtarnwick to '$resolved', not into $libdir"
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/build/app") || fail "consumer exited with status $?: $out"
echo "   $out"
[[ "$out" == OK* ]] || fail "consumer did not print OK"

echo "-- pkg-config consumer"
export PKG_CONFIG_SYSROOT_DIR=$root
export PKG_CONFIG_PATH=$libdir/pkgconfig
pc_flags=$(pkg-config --cflags --libs tarnwick) || fail "pkg-config --cflags --libs tarnwick"
echo "   $pc_flags"
[[ "$pc_flags" == *"-I$usr/include"* && "$pc_flags" == *"-L$libdir"* ]] ||
    fail "pkg-config flags do not point into the unpacked root"
[[ "$(pkg-config --modversion tarnwick)" == "${version%-*}" ]] || fail "pkg-config version is not ${version%-*}"
# shellcheck disable=SC2086 # the flags are lists of words
c++ -std=c++17 "$source_dir/tests/consumer/main.cpp" -o "$scratch/app-pkgconfig" $pc_flags \
    >"$scratch/pkgconfig-build.log" 2>&1 ||
    { cat "$scratch/pkgconfig-build.log" >&2; fail "building with the pkg-config flags"; }
unset PKG_CONFIG_SYSROOT_DIR PKG_CONFIG_PATH
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/app-pkgconfig") || fail "pkg-config build exited with status $?: $out"
echo "   $out"
[[ "$out" == OK* ]] || fail "pkg-config build did not print OK"

echo "-- demo_agent and demo_control from the packages, over SSL"
keys=$scratch/keys
sh "$source_dir/tests/support/make_certs.sh" "$keys" demo_agent demo_control >"$scratch/certs.log" 2>&1 ||
    { cat "$scratch/certs.log" >&2; fail "making key files"; }
(cd "$scratch" && LD_LIBRARY_PATH="$libdir" exec "$usr/bin/demo_agent" --port=0 \
    --portfile="$scratch/port" --threads=1 --keydir="$keys" >"$scratch/agent.out" 2>"$scratch/agent.log") &
agent_pid=$!
for _ in $(seq 100); do
    [[ -s $scratch/port ]] && break
    kill -0 "$agent_pid" 2>/dev/null || break
    sleep 0.1
done
[[ -s $scratch/port ]] || { cat "$scratch/agent.out" "$scratch/agent.log" >&2; fail "the agent did not start"; }
out=$(LD_LIBRARY_PATH="$libdir" "$usr/bin/demo_control" --port="$(cat "$scratch/port")" \
    --keydir="$keys" --command=version 2>&1) || fail "demo_control exited with status $?: $out"
sed 's/^/   /' <<<"$out"
grep -q 'demo_agent' <<<"$out" || fail "the reply does not name demo_agent"
kill -TERM "$agent_pid"
wait "$agent_pid" || fail "the agent ended with status $? on SIGTERM"
agent_pid=

echo "-- lintian"
# Exit status 0: nothing above the failure level, 2: tags at it; anything
# else means lintian itself failed.
status=0
lintian "${debs[@]}" >"$scratch/lintian.log" 2>&1 || status=$?
(grep -v 'running with root privileges is not recommended' "$scratch/lintian.log" || true) | sed 's/^/   /'
[[ $status -eq 0 || $status -eq 2 ]] || fail "lintian failed with status $status"
if grep -q '^E: ' "$scratch/lintian.log"; then
    fail "lintian reports errors: $(grep '^E: ' "$scratch/lintian.log" | xargs)"
fi

echo "package_install: OK"
