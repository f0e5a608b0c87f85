# What run, test and .ci/run have in common. To be sourced.

export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

build_packages=(g++ cmake ninja-build pkg-config libsystemd-dev libmnl-dev libutf8proc-dev libpng-dev libqrencode-dev
    nlohmann-json3-dev qt6-base-dev)
# The tools that the client runs, the language of the sample backend, and what windows need for X11 and for Wayland.
run_packages=(bash procps lsof curl python3 qt6-qpa-plugins qt6-wayland)
# Daemons, a display and a panel of the tests' own, and who makes and judges a package.
test_packages=(libgtest-dev dbus-daemon systemd util-linux iproute2 xvfb xauth xfce4-panel xfconf xdotool imagemagick
    x11-utils fonts-noto-cjk fonts-noto-color-emoji at-spi2-core python3-gi openbox dunst sway
    mate-session-manager xssproxy zbar-tools xterm qt6-gtk-platformtheme dex desktop-file-utils libglib2.0-bin
    dpkg-dev file lintian appstream man-db)
# What the benchmarks measure with.
benchmark_packages=(libbenchmark-dev libxcb1-dev dbus-daemon xvfb util-linux iproute2)
# clang too, so that both compilers see every line.
sanitizer_packages=(clang libclang-rt-14-dev)

log=$(mktemp)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -f -- "$log"' EXIT

# fail MESSAGE...: says why, and ends.
fail() {
    printf '%s\n' "$@" >&2
    exit 1
}

# step WHAT COMMAND...: one line that says what is done, and every five seconds that it goes on. A command that fails
# shows what it said.
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

# asks_no_password: whether sudo does what it is told here without a question.
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

# install_missing PACKAGE...: the packages of these that are not there.
install_missing() {
    local missing=() package command
    for package; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    command="apt-get install --no-install-recommends ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "Packages are missing, and there is no sudo. As root: $command"
        if ! asks_no_password; then
            [ -t 0 ] || fail "Packages are missing, and nobody is here to give sudo a password. As root: $command"
            echo "These packages are missing, and sudo may ask for your password to install them: ${missing[*]}"
            sudo --validate || fail "Packages are missing, and sudo is refused. As root: $command"
        fi
    fi
    (step "Reading the list of packages" as_root apt-get -q update &&
        step "Installing ${missing[*]}" as_root env DEBIAN_FRONTEND=noninteractive \
            apt-get -q -y --no-install-recommends install "${missing[@]}") ||
        fail "The packages could not be installed, for the reason above. Once there is a network, as root: $command"
}

# install_missing_fonts: one with Chinese characters and one with emoji in colour, unless there are such fonts.
install_missing_fonts() {
    local missing=()
    has_font :lang=zh-tw || missing+=(fonts-noto-cjk)
    has_font :charset=1f7e2:color=true || missing+=(fonts-noto-color-emoji)
    install_missing "${missing[@]}"
}

has_font() { [ -n "$(fc-list "$1" 2>/dev/null)" ]; }

# build PRESET: configures if need be, and builds.
build() {
    mkdir -p -- "build/$1" 2>/dev/null && [ -w "build/$1" ] ||
        fail "Nothing can be built in $PWD, which you may not write to: copy it to where you may, and start it there."
    [ -f "build/$1/build.ninja" ] || step "Configuring ($1)" cmake --preset "$1"
    step "Building ($1)" cmake --build --preset "$1"
}
