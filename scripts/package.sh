#!/usr/bin/env bash
# Builds the Debian packages of tarnwick with CPack (cmake/TarnwickPackaging.cmake):
#   libtarnwick6       the shared library
#   libtarnwick-dev    headers, libtarnwick.so, CMake package, tarnwick.pc
#   tarnwick-examples  demo_agent, demo_control, demo_agent.service
#
#   scripts/package.sh [--build-dir=DIR] [--output=DIR]
#
# The packages are made in build-package/, or in --build-dir: a new directory
# is configured for packaging (RelWithDebInfo, without tests and benchmarks);
# an existing build tree (e.g. build/ of scripts/test.sh) is reused, and only
# the library and the two programs are built in it, if they are not yet. It
# must be an optimised build (Release, RelWithDebInfo or MinSizeRel) without
# sanitizers and with the examples.
# The packages are written to DIR/packages, and copied to --output if given;
# the script prints their paths, one a line, on standard output.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=${TARNWICK_JOBS:-2}

build_dir=
output=
for arg in "$@"; do
    case "$arg" in
        --build-dir=*) build_dir=${arg#*=} ;;
        --output=*) output=${arg#*=} ;;
        -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "package.sh: unknown argument '$arg' (try --help)" >&2; exit 2 ;;
    esac
done

fail() {
    echo "package.sh: $*" >&2
    exit 1
}

for tool in cmake cpack dpkg-deb dpkg-shlibdeps readelf file gzip; do
    command -v "$tool" >/dev/null 2>&1 ||
        fail "$tool not found (scripts/install-deps.sh installs what is needed)"
done

build_dir=${build_dir:-$root/build-package}
if [[ ! -f "$build_dir/CMakeCache.txt" ]]; then
    echo "-- configure $build_dir" >&2
    cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTARNWICK_BUILD_TESTS=OFF -DTARNWICK_BUILD_BENCH=OFF \
        -DTARNWICK_BUILD_EXAMPLES=ON >&2 || fail "configuring $build_dir failed"
fi
[[ -f "$build_dir/CMakeCache.txt" ]] || fail "$build_dir is not a configured build tree"
build_dir=$(cd "$build_dir" && pwd)

# cache VARIABLE: its value in the build tree's cache, empty if unset.
cache() {
    sed -n "s/^$1:[A-Z]*=//p" "$build_dir/CMakeCache.txt" | head -n 1
}
for option in TARNWICK_SANITIZE TARNWICK_TSAN TARNWICK_FUZZ; do
    case "$(cache "$option")" in
        ""|OFF|0|FALSE|NO) ;;
        *) fail "$build_dir is built with $option: packages are made from a build without sanitizers" ;;
    esac
done
case "$(cache CMAKE_BUILD_TYPE)" in
    Release|RelWithDebInfo|MinSizeRel) ;;
    *) fail "$build_dir has build type '$(cache CMAKE_BUILD_TYPE)': packages are made from an optimised build" ;;
esac
case "$(cache TARNWICK_BUILD_EXAMPLES)" in
    ""|ON|1|TRUE|YES) ;;
    *) fail "$build_dir is configured without the examples (TARNWICK_BUILD_EXAMPLES=OFF)" ;;
esac

# The package's version comes from the project; the changelog's newest entry
# must name it, with the package release that the packaging sets.
[[ -f "$build_dir/CPackConfig.cmake" ]] || fail "$build_dir has no CPackConfig.cmake"
version=$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build_dir/CPackConfig.cmake")
release=$(sed -n 's/^set(CPACK_DEBIAN_PACKAGE_RELEASE "\(.*\)")$/\1/p' "$build_dir/CPackConfig.cmake")
changelog=$(sed -n '1s/^tarnwick (\([^)]*\)).*/\1/p' "$root/cmake/debian/changelog")
[[ "$changelog" == "$version-$release" ]] ||
    fail "cmake/debian/changelog starts with version '$changelog', the packages are $version-$release: add an entry"

echo "-- build the library and the examples in $build_dir" >&2
# The two programs are linked anew: a tree built before their install rules
# existed holds them with a run path that the install step does not expect.
rm -f "$build_dir/examples/demo_agent" "$build_dir/examples/demo_control"
cmake --build "$build_dir" -j "$jobs" --target tarnwick demo_agent demo_control >&2 ||
    fail "building in $build_dir failed"

echo "-- cpack" >&2
packages=$build_dir/packages
rm -rf "$packages"
(cd "$build_dir" && cpack -G DEB) >"$build_dir/cpack.log" 2>&1 ||
    { cat "$build_dir/cpack.log" >&2; fail "cpack failed (log: $build_dir/cpack.log)"; }

debs=()
for name in "libtarnwick${version%%.*}" libtarnwick-dev tarnwick-examples; do
    deb=$(find "$packages" -maxdepth 1 -name "${name}_${version}-${release}_*.deb" | head -n 1)
    [[ -n "$deb" ]] || fail "cpack made no package $name (log: $build_dir/cpack.log)"
    debs+=("$deb")
done
if [[ -n "$output" ]]; then
    mkdir -p "$output"
    cp "${debs[@]}" "$output"/
    output=$(cd "$output" && pwd)
    for deb in "${debs[@]}"; do
        echo "$output/$(basename "$deb")"
    done
else
    printf '%s\n' "${debs[@]}"
fi
