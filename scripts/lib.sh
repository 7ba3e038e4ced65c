# Shared by the scripts beside it: the tree's root, messages, packages, builds. Sourced, never run.
# shellcheck shell=bash disable=SC2034

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export ROOT

# Build products do not depend on where the tree lies, so a compiler cache may be shared between trees.
export CCACHE_NOHASHDIR=1

JOBS=$(nproc)
export JOBS

# What each job needs from the distribution. The program itself needs the first line only.
BUILD_PACKAGES=(g++ cmake ninja-build)
# The libraries that cmake/packages.cmake looks for.
mapfile -t TOOL_PACKAGES < <(
    sed -n 's/^tessel_package(.* DEBIAN \([^ )]*\).*/\1/p' "$ROOT/cmake/packages.cmake"
)
# The -rt package holds the sanitizer and fuzzer runtimes of clang.
TEST_PACKAGES=(git libgtest-dev libbenchmark-dev clang libclang-rt-dev lld python3 python3-pytest mypy tshark
    chromium valgrind jq procps iproute2 pkg-config)
LINT_PACKAGES=(clang-format clang-tidy cppcheck shellcheck git python3)

say() {
    printf '%s\n' "$*" >&2
}

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Installs the packages named that are not there yet, and says which. When all are there it does nothing and
# asks for no rights.
install_missing() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    if [ "${#missing[@]}" = 0 ]; then
        return 0
    fi
    say "installing with apt: ${missing[*]}"
    as_root apt-get -q -y update >/dev/null
    # The capture tool asks whether users may capture; it must not ask here.
    if command -v debconf-set-selections >/dev/null; then
        echo 'wireshark-common wireshark-common/install-setuid boolean false' | as_root debconf-set-selections
    fi
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -y install --no-install-recommends "${missing[@]}" >/dev/null
}

# The same for node and npm, which may have come from elsewhere.
install_node() {
    if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
        install_missing nodejs npm
    fi
}

# configure PRESET [cmake options]: quiet unless it fails.
configure() {
    local preset=$1 log
    shift
    mkdir -p "$ROOT/build/$preset"
    log=$ROOT/build/$preset/configure.log
    if ! (cd "$ROOT" && cmake --preset "$preset" "$@") >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# build PRESET [targets]: quiet unless it fails.
build() {
    local preset=$1 log targets=()
    shift
    log=$ROOT/build/$preset/build.log
    if [ "$#" -gt 0 ]; then
        targets=(--target "$@")
    fi
    say "building build/$preset${1:+: $*}"
    if ! cmake --build "$ROOT/build/$preset" -j "$JOBS" "${targets[@]}" >"$log" 2>&1; then
        grep -v '^\[[0-9/]*\] \(Building\|Linking\)' "$log" | head -n 200 >&2
        return 1
    fi
}

# has_target PRESET TARGET: true when the build of that preset knows the target.
has_target() {
    ninja -C "$ROOT/build/$1" -t query "$2" >/dev/null 2>&1
}

# run_ctest PRESET [ctest options]: runs the tests of a build, prints what failed and the count of single
# cases.
run_ctest() {
    local preset=$1 dir status=0
    shift
    dir=$ROOT/build/$preset
    rm -rf "$dir/junit" "$dir/ctest.xml"
    mkdir -p "$dir/junit"
    ctest --test-dir "$dir" -j 4 --output-on-failure --output-junit "$dir/ctest.xml" "$@" \
        >"$dir/ctest.log" 2>&1 || status=1
    if [ "$status" != 0 ]; then
        grep -v ' Passed \|^ *Start ' "$dir/ctest.log" | tail -n 200 >&2
    fi
    "$ROOT/scripts/count-tests" "$dir" || status=1
    return "$status"
}
