# Functions and package lists for the scripts of this project. Source this file.

export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

# Packages for the build. On Ubuntu 22.04, qt6-base-dev needs libgl-dev without depending on it.
build_packages=(g++ cmake ninja-build pkg-config libsystemd-dev libmnl-dev libutf8proc-dev libpng-dev libqrencode-dev
    nlohmann-json3-dev qt6-base-dev libgl-dev)
# Packages for a run: tools that the client calls, Python for the sample backend, Qt plugins for X11 and Wayland.
run_packages=(bash procps lsof curl python3 qt6-qpa-plugins qt6-wayland)
# Packages that cpack needs to make the Debian packages.
package_packages=(dpkg-dev file)
# Packages for the tests: daemons, displays and a panel, and tools that check the Debian packages.
test_packages=(libgtest-dev dbus systemd util-linux iproute2 xvfb xauth xfce4-panel xfconf xdotool imagemagick
    x11-utils fonts-noto-cjk fonts-noto-color-emoji at-spi2-core python3-gi openbox dunst sway
    mate-session-manager xssproxy zbar-tools xterm dex desktop-file-utils libglib2.0-bin
    "${package_packages[@]}" lintian appstream man-db)
# Packages for the benchmarks.
benchmark_packages=(libbenchmark-dev dbus xvfb x11-utils python3-gi util-linux iproute2)

log=$(mktemp)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -f -- "$log"' EXIT

# fail MESSAGE...: prints the messages on standard error and exits with status 1.
fail() {
    printf '%s\n' "$@" >&2
    exit 1
}

# step WHAT COMMAND...: prints WHAT and runs the command, adding the elapsed time every five seconds. If the command
# fails, prints its output and exits with its status.
step() {
    local began=$SECONDS next=5 status=0 pid
    printf '%s …' "$1"
    shift
    "$@" </dev/null >"$log" 2>&1 &
    pid=$!
    while kill -0 "$pid" 2>/dev/null; do
        sleep 0.1
        if [ $((SECONDS - began)) -ge "$next" ]; then
            printf ' %ds' "$next"
            next=$((next + 5))
        fi
    done
    wait "$pid" || status=$?
    if [ "$status" -ne 0 ]; then
        printf ' failed\n'
        cat -- "$log" >&2
        exit "$status"
    fi
    printf ' done\n'
}

# asks_no_password: succeeds if sudo runs commands here without asking for a password.
asks_no_password() { sudo --non-interactive true 2>/dev/null; }

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif asks_no_password; then
        sudo --non-interactive "$@"
    else
        sudo "$@"
    fi
}

# install_missing PACKAGE...: installs the packages that are not installed yet.
install_missing() {
    local missing=() package command
    for package; do
        # This prints a line for each architecture for which the package is installed.
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -x installed >/dev/null || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command="apt-get install --no-install-recommends ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "Packages are missing, and there is no sudo. As root: $command"
        if ! asks_no_password; then
            [ -t 0 ] || fail "Packages are missing, and without a terminal sudo cannot ask for a password. As root: $command"
            echo "These packages are missing, and sudo may ask for your password to install them: ${missing[*]}"
            sudo --validate || fail "Packages are missing, and sudo is refused. As root: $command"
        fi
    fi
    (step "Updating the package lists" as_root apt-get -q update &&
        step "Installing ${missing[*]}" as_root env DEBIAN_FRONTEND=noninteractive \
            apt-get -q -y --no-install-recommends install "${missing[@]}") ||
        fail "The packages could not be installed, for the reason above. Once there is a network, as root: $command"
}

# install_clang: installs clang and the libraries of its sanitizers. The sanitizer builds use clang, so that clang checks
# the code as well as GCC.
install_clang() {
    local version
    install_missing clang
    version=$(clang -dumpversion)
    # Ubuntu 22.04 has no package libclang-rt-14-dev: there clang already depends on the libraries.
    compgen -G "$(clang -print-resource-dir)/lib/*/libclang_rt.fuzzer*" >/dev/null ||
        install_missing "libclang-rt-${version%%.*}-dev"
}

# install_missing_fonts: installs a Chinese font if the system has no such font, and likewise a colour emoji font.
install_missing_fonts() {
    local missing=()
    has_font :lang=zh-tw || missing+=(fonts-noto-cjk)
    has_font :charset=1f7e2:color=true || missing+=(fonts-noto-color-emoji)
    install_missing "${missing[@]}"
}

has_font() { [ -n "$(fc-list "$1" 2>/dev/null)" ]; }

# build PRESET: builds the preset in build/PRESET, and configures it first if necessary.
build() {
    mkdir -p -- "build/$1" 2>/dev/null && [ -w "build/$1" ] ||
        fail "Nothing can be built in $PWD, which you may not write to: copy it to where you may, and start it there."
    [ -f "build/$1/build.ninja" ] || step "Configuring ($1)" cmake --preset "$1"
    step "Building ($1)" cmake --build --preset "$1"
}
