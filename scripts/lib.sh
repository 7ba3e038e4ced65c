# Shared by the scripts beside it: the tree's root, messages, packages, builds. Sourced, never run.
# shellcheck shell=bash disable=SC2034

# With CDPATH set, cd looks elsewhere first and prints where it went.
unset CDPATH
ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
export ROOT

# Build products do not depend on where the tree lies, so a compiler cache may be shared between trees.
export CCACHE_NOHASHDIR=1

JOBS=$(nproc)
export JOBS

# What each job needs from the distribution. The program itself needs the first line only.
BUILD_PACKAGES=(g++ cmake ninja-build pkg-config)
# The libraries that cmake/packages.cmake looks for.
mapfile -t TOOL_PACKAGES < <(
    sed -n 's/^tessel_package(.* DEBIAN \([^ )]*\).*/\1/p' "$ROOT/cmake/packages.cmake"
)
# The -rt package holds the sanitizer and fuzzer runtimes of clang.
TEST_PACKAGES=(git libgtest-dev libbenchmark-dev clang libclang-rt-dev lld python3 python3-pytest mypy tshark
    chromium chromium-driver python3-selenium curl valgrind jq procps iproute2 nftables pkg-config zstd
    wireshark-common tcpreplay prometheus python3-jsonschema python3-yaml parallel
    rsync openssh-server munge slurmctld slurmd slurm-client)
# What makes the packages, and what their tests use.
PACKAGE_PACKAGES=(scdoc python3 python3-pip python3-setuptools python3-wheel dpkg-dev fakeroot)
TEST_PACKAGES+=("${PACKAGE_PACKAGES[@]}" lintian mmdebstrap man-db bash-completion zsh systemd util-linux
    podman buildah crun docker-compose)
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

# Whether packages can be installed here at all. If not, prints what the caller has to install.
can_install() {
    if ! command -v apt-get >/dev/null; then
        say "missing: $*; there is no apt-get here: install them in your system's way"
        return 1
    fi
    if [ "$(id -u)" != 0 ] && ! command -v sudo >/dev/null; then
        say "missing: $*; neither root nor sudo here: have root run apt-get install $*"
        return 1
    fi
}

# Installs the packages named that are not there yet, and says which. When all are there it does nothing and
# asks for no rights. When some cannot be installed it says which to install, and returns 1.
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
    can_install "${missing[@]}" || return 1
    say "installing with apt: ${missing[*]}"
    # One package source that does not answer is no reason to stop: the others may have what is missing.
    if ! as_root apt-get -q -y update >/dev/null; then
        say "a package source could not be read; going on with the others"
    fi
    # The capture tool asks whether users may capture; it must not ask here.
    if command -v debconf-set-selections >/dev/null; then
        echo 'wireshark-common wireshark-common/install-setuid boolean false' |
            as_root debconf-set-selections || true
    fi
    # A service comes with the monitoring server; the tests start their own, and nobody asked for another one.
    if [[ " ${missing[*]} " == *" prometheus "* ]] && [ ! -e /etc/systemd/system/prometheus.service ]; then
        as_root mkdir -p /etc/systemd/system
        as_root ln -s /dev/null /etc/systemd/system/prometheus.service
    fi
    if ! as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -y install --no-install-recommends "${missing[@]}" >/dev/null; then
        say "not installed: ${missing[*]}; see apt's messages above, then install them by hand"
        return 1
    fi
}

# The same for node and npm, which may have come from elsewhere.
install_node() {
    if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
        install_missing nodejs npm
    fi
}

# own_folder FOLDER: makes the folder, or checks that it and build/ above it are the caller's. In a folder of
# another user's (built as root, say) some files could be replaced and others not, in the middle of a build.
own_folder() {
    local folder=$1 each
    for each in "$ROOT/build" "$folder"; do
        if [ -e "$each" ] && ! { [ -O "$each" ] && [ -w "$each" ]; }; then
            say "$each belongs to $(stat -L -c %U -- "$each"), not to you: remove it, or build as that user"
            return 1
        fi
    done
    mkdir -p -- "$folder"
}

# configure PRESET [cmake options]: quiet unless it fails.
configure() {
    local preset=$1 log
    shift
    own_folder "$ROOT/build/$preset" || return 1
    log=$ROOT/build/$preset/configure.log
    if ! (cd -- "$ROOT" && cmake --preset "$preset" "$@") >"$log" 2>&1; then
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

# How much longer than on an idle machine things may take: TESSEL_TIME_SCALE, or the number of processes that
# wait for each processor now; a whole number from 1 to 10.
time_scale() {
    local scale=${TESSEL_TIME_SCALE:-}
    if [ -z "$scale" ]; then
        scale=$(awk -v jobs="$JOBS" '{ print $1 / jobs }' /proc/loadavg)
    fi
    awk -v scale="$scale" 'BEGIN {
        whole = int(scale); if (whole < scale) ++whole
        if (whole < 1) whole = 1
        if (whole > 10) whole = 10
        print whole
    }'
}

# run_ctest PRESET [ctest options]: runs the tests of a build, prints what failed and the count of single
# cases. An entry that has not ended after 240 seconds times the scale has failed.
run_ctest() {
    local preset=$1 dir status=0
    shift
    dir=$ROOT/build/$preset
    rm -rf "$dir/junit" "$dir/ctest.xml"
    mkdir -p "$dir/junit"
    ctest --test-dir "$dir" -j 4 --timeout "$((240 * $(time_scale)))" --output-on-failure \
        --output-junit "$dir/ctest.xml" "$@" >"$dir/ctest.log" 2>&1 || status=1
    if [ "$status" != 0 ]; then
        grep -v ' Passed \|^ *Start ' "$dir/ctest.log" | tail -n 200 >&2
    fi
    "$ROOT/scripts/count-tests" "$dir" || status=1
    return "$status"
}
