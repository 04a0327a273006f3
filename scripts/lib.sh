# Shared by the scripts: the Debian packages that they need, and installing missing ones. Sourced by bash; changes
# to the top of the source tree.
# shellcheck shell=bash disable=SC2034

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

# To build everything.
BUILD_PACKAGES=(g++ cmake ninja-build pkg-config python3 libgtest-dev libbenchmark-dev libpcap-dev libcli11-dev
    nlohmann-json3-dev libtsl-hopscotch-map-dev libcpp-httplib-dev libboost-dev libsqlite3-dev libtomlplusplus-dev libssl-dev)
# To look into capture files, for scripts/demo.
CAPTURE_PACKAGES=(tcpdump tshark wireshark-common)
# The other compiler, the linters, and what the tests use.
TEST_PACKAGES=(git mandoc clang clang-format clang-tidy libclang-rt-14-dev llvm shellcheck binutils tcpreplay iproute2 ethtool
    procps)
# To build the web page, unless npm is there by other means, and to test it.
WEB_PACKAGES=(nodejs npm)
BROWSER_PACKAGES=(chromium fonts-dejavu-core)
# To build the packages, and to look into them.
PACKAGING_PACKAGES=(dpkg-dev debhelper fakeroot lintian systemd)

say() {
    printf '%s\n' "$*"
}

# run_as_root COMMAND...: with sudo unless this is root.
run_as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -n true 2>/dev/null || say "sudo is asked for, to install packages"
        sudo "$@"
    else
        say "neither root nor sudo here; run as root: $*" >&2
        return 1
    fi
}

is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# install_missing PACKAGE...: does not run apt when nothing is missing.
install_missing() {
    local missing=() package
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    say "installing: ${missing[*]}"
    run_as_root apt-get -q update &&
        run_as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends install "${missing[@]}"
}

# build_preset PRESET [TARGET...]: everything if no target is named. Continues after an error, so that the output
# shows all of them.
build_preset() {
    local preset=$1 target=() name
    shift
    for name in "$@"; do
        target+=(--target "$name")
    done
    cmake --preset "$preset" && cmake --build --preset "$preset" "${target[@]}" -- -k 0
}

# files PATTERN...: files of the project, also outside a repository.
files() {
    if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git ls-files --cached --others --exclude-standard -- "$@"
    else
        local pattern
        for pattern in "$@"; do
            find . -path ./build -prune -o -type f -path "./$pattern" -print | sed 's,^\./,,'
        done
    fi
}
