#!/usr/bin/env bash
# Installs the Debian packages that building, testing, the examples, the
# benchmarks and the fuzz targets of tarnwick need. Does nothing (and prints
# nothing) when every package is already installed.
set -euo pipefail

packages=(
    # toolchain
    build-essential cmake pkg-config git binutils
    # clang, libFuzzer and the clang sanitizer runtimes, formatter
    clang libclang-rt-14-dev clang-format
    # library dependencies
    libace-dev libace-ssl-dev libssl-dev openssl libxml2-dev libcurl4-openssl-dev
    libboost-dev libcap-dev
    # tests and benchmarks
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    # node and npm (nodejs of the nodesource packages holds npm) for s3rver
    nodejs
    # tools used by tests: capabilities (setcap/getcap), ps/pgrep, file(1)
    libcap2-bin procps file
    # systemd-analyze, which checks the unit file that a service installs
    systemd
    # Debian packages: dpkg-shlibdeps for their dependencies, lintian to check them
    dpkg-dev lintian
    # the Wireshark dissector test: capture on loopback, decode with tshark
    tcpdump tshark
)

# Prints the packages of the arguments that are not installed.
not_installed() {
    local pkg status
    for pkg in "$@"; do
        status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
        if [[ "$status" != "install ok installed" ]]; then
            echo "$pkg"
        fi
    done
}

# The npm packages of the tests (tests/support/package.json: s3rver, an S3
# server), installed with `npm ci` from the lockfile when node and npm are
# there and the lockfile changed since the last install; the tests that need
# them are skipped without.
npm_test_packages() {
    local dir lock stamp
    dir="$(cd "$(dirname "$0")/.." && pwd)/tests/support"
    lock=$(sha256sum "$dir/package-lock.json" | cut -d' ' -f1)
    stamp="$dir/node_modules/.tarnwick-lock"
    command -v npm >/dev/null 2>&1 || return 0
    [[ -f "$stamp" && "$(cat "$stamp")" == "$lock" ]] && return 0
    echo "install-deps: npm ci in tests/support"
    if ! (cd "$dir" && npm ci --no-audit --no-fund --loglevel=error >/dev/null); then
        # Only the s3rver test needs them, and it skips itself without.
        echo "install-deps: npm ci failed; the s3rver test will be skipped" >&2
        return 0
    fi
    echo "$lock" >"$stamp"
}

mapfile -t missing < <(not_installed "${packages[@]}")
if [[ ${#missing[@]} -eq 0 ]]; then
    npm_test_packages
    exit 0
fi

sudo=()
if [[ $(id -u) -ne 0 ]]; then
    if ! command -v sudo >/dev/null 2>&1; then
        echo "install-deps: missing packages (${missing[*]}) and not root; sudo not found" >&2
        exit 1
    fi
    sudo=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
apt=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300)
"${apt[@]}" update -qq
"${apt[@]}" install -y -qq --no-install-recommends "${missing[@]}" >/dev/null

mapfile -t still < <(not_installed "${missing[@]}")
if [[ ${#still[@]} -gt 0 ]]; then
    echo "install-deps: could not install ${still[*]}" >&2
    exit 1
fi
npm_test_packages
echo "install-deps: done"
