#!/usr/bin/env bash
# Installs a build of tarnwick into a scratch prefix and checks it as an
# outside program sees it:
#   - the installed library has the SONAME libtarnwick.so.<soversion>;
#   - a CMake project with find_package(Tarnwick) builds and runs;
#   - pkg-config knows tarnwick, and a program built with its flags runs.
#
#   run.sh --build-dir=DIR --scratch=DIR [--soversion=N] [--cxx=COMPILER]
#          [--build-type=TYPE] [--cxx-flags=FLAGS] [--link-flags=FLAGS]
#
# The scratch directory is removed and made anew on every run.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

build_dir=
scratch=
soversion=6
cxx=c++
build_type=RelWithDebInfo
cxx_flags=
link_flags=
for arg in "$@"; do
    case "$arg" in
        --build-dir=*) build_dir=${arg#*=} ;;
        --scratch=*) scratch=${arg#*=} ;;
        --soversion=*) soversion=${arg#*=} ;;
        --cxx=*) cxx=${arg#*=} ;;
        --build-type=*) build_type=${arg#*=} ;;
        --cxx-flags=*) cxx_flags=${arg#*=} ;;
        --link-flags=*) link_flags=${arg#*=} ;;
        *) echo "run.sh: unknown argument '$arg'" >&2; exit 2 ;;
    esac
done
if [[ -z "$build_dir" || -z "$scratch" ]]; then
    echo "usage: run.sh --build-dir=DIR --scratch=DIR [options]" >&2
    exit 2
fi
# Trim the blanks that empty flag variables leave.
cxx_flags=$(echo "$cxx_flags" | xargs)
link_flags=$(echo "$link_flags" | xargs)

fail() {
    echo "install_and_consume: FAILED: $*" >&2
    exit 1
}

case "$scratch" in
    */consumer-test) ;;
    *) fail "refusing to use '$scratch' as scratch directory (must end in /consumer-test)" ;;
esac
rm -rf "$scratch"
prefix="$scratch/prefix"
mkdir -p "$prefix"

echo "-- install $build_dir into $prefix"
cmake --install "$build_dir" --prefix "$prefix" >"$scratch/install.log" 2>&1 ||
    { cat "$scratch/install.log" >&2; fail "cmake --install"; }

libdir="$prefix/lib"
[[ -f "$prefix/include/tarnwick/message_header.h" ]] || fail "headers not installed under include/tarnwick"
[[ -f "$libdir/cmake/Tarnwick/TarnwickConfig.cmake" ]] || fail "CMake package not installed"
[[ -f "$libdir/pkgconfig/tarnwick.pc" ]] || fail "tarnwick.pc not installed"

echo "-- SONAME"
lib=$(find "$libdir" -maxdepth 1 -name 'libtarnwick.so.*.*' -type f | head -n 1)
[[ -n "$lib" ]] || fail "no libtarnwick.so.X.Y.Z in $libdir"
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
echo "   $(basename "$lib"): SONAME $soname"
[[ "$soname" == "libtarnwick.so.$soversion" ]] || fail "SONAME is '$soname', expected libtarnwick.so.$soversion"
[[ -L "$libdir/libtarnwick.so.$soversion" ]] || fail "libtarnwick.so.$soversion link missing"
[[ -L "$libdir/libtarnwick.so" ]] || fail "libtarnwick.so link missing"

echo "-- exported symbols"
# The dynamic symbol table holds the API and nothing behind it: a sample of
# public names must be there, a sample of internal ones must not.
symbols=$(nm -D --defined-only -C "$lib" | cut -d' ' -f3-)
# The symbols that belong to NAME: its own members, vtable and typeinfo (not
# a public function that merely takes an internal type as a parameter).
symbols_of() {
    awk -v n="$1" 'index($0, n) == 1 || index($0, " for " n) > 0 || index($0, " to " n) > 0' <<<"$symbols"
}
for name in 'Tarnwick::Engine::getSingleton' 'Tarnwick::Abstract_Event::' \
        'Tarnwick::Exception::' 'Tarnwick::Message_Reader::feed' 'Tarnwick::strlcpy'; do
    [[ -n "$(symbols_of "$name")" ]] || fail "public symbol $name is not exported"
done
for name in 'Tarnwick::XMLDocument' 'Tarnwick::XMLMemoryWriter' 'Tarnwick::Replacement_File' \
        'Tarnwick::Handler_Implementation' 'Tarnwick::Acceptor_Base' 'Tarnwick::SSL_Acceptor' 'Tarnwick::(anonymous namespace)'; do
    found=$(symbols_of "$name" | head -n 3)
    [[ -z "$found" ]] || fail "internal symbol $name is exported: $found"
done
echo "   $(wc -l <<<"$symbols") symbols, internal ones absent"
for header in acceptor.h handler_t.h xml.h replacement_file.h; do
    [[ ! -e "$prefix/include/tarnwick/$header" ]] || fail "internal header $header is installed"
done

echo "-- find_package(Tarnwick) consumer"
cmake -S "$here" -B "$scratch/build" \
    -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_BUILD_TYPE="$build_type" \
    -DCMAKE_CXX_FLAGS="$cxx_flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$link_flags" >"$scratch/configure.log" 2>&1 ||
    { cat "$scratch/configure.log" >&2; fail "configuring the consumer"; }
cmake --build "$scratch/build" >"$scratch/build.log" 2>&1 ||
    { cat "$scratch/build.log" >&2; fail "building the consumer"; }

# The program must pick up the installed copy, not the one in the build tree.
resolved=$(LD_LIBRARY_PATH="$libdir" ldd "$scratch/build/app" | sed -n 's/.*libtarnwick\.so[^ ]* => \([^ ]*\).*/\1/p')
case "$resolved" in
    "$libdir"/*) ;;
    *) fail "consumer resolves libtarnwick to '$resolved', not into $libdir" ;;
esac
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/build/app") || fail "consumer exited with status $?: $out"
echo "   $out"
[[ "$out" == *OK* ]] || fail "consumer did not print OK"

echo "-- pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
pc_flags=$(pkg-config --cflags --libs tarnwick) || fail "pkg-config --cflags --libs tarnwick"
echo "   $pc_flags"
[[ "$pc_flags" == *"-I$prefix/include"* ]] || fail "pkg-config cflags do not point into $prefix/include"
[[ "$pc_flags" == *"-L$libdir"* ]] || fail "pkg-config libs do not point into $libdir"
pc_version=$(pkg-config --modversion tarnwick)
[[ "$pc_version" == "$soversion".* ]] || fail "pkg-config version '$pc_version' does not match SOVERSION $soversion"
# shellcheck disable=SC2086 # the flags are lists of words
"$cxx" -std=c++17 $cxx_flags "$here/main.cpp" -o "$scratch/app-pkgconfig" $pc_flags $link_flags \
    >"$scratch/pkgconfig-build.log" 2>&1 ||
    { cat "$scratch/pkgconfig-build.log" >&2; fail "building with the pkg-config flags"; }
out=$(LD_LIBRARY_PATH="$libdir" "$scratch/app-pkgconfig") || fail "pkg-config build exited with status $?: $out"
echo "   $out"
[[ "$out" == *OK* ]] || fail "pkg-config build did not print OK"

echo "install_and_consume: OK"
