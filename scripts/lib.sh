# Shared by the scripts beside it: the root of the tree, root rights, packages.
set -euo pipefail
ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
CACHE=$ROOT/build/cache
export CCACHE_BASEDIR=$ROOT CCACHE_NOHASHDIR=1
cd "$ROOT"

as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# need_packages NAME...: installs those that are missing; asks the network only then.
need_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} = 0 ] && return
    echo "installing ${missing[*]}" >&2
    as_root apt-get update -qq >&2 || true
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(g++ cmake ninja-build ccache pkg-config libgtest-dev libpcap-dev nlohmann-json3-dev git ca-certificates)
CLANG_PACKAGES=(clang clang-tidy clang-format libclang-rt-14-dev)
BENCH_PACKAGES=(libbenchmark-dev libwinpr2-dev libusbredirparser-dev libspdlog-dev libgoogle-glog-dev libuv1-dev python3)
CROSS_PACKAGES=(g++-arm-linux-gnueabihf qemu-user dpkg-dev bison flex make)

configure() {
    local preset=$1
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >"build-$preset.log" 2>&1 || {
        cat "build-$preset.log" >&2
        return 1
    }
    rm -f "build-$preset.log"
}

# build PRESET [TARGET...]: configures when needed and builds.
build() {
    local preset=$1
    shift
    configure "$preset"
    ninja -C "build/$preset" "$@"
}
