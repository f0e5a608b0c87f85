# Functions for tests/hosts/gnome, plasma and sway, which source this file: they install a Debian system for each
# desktop, boot it in a container, and run the checks there. Arguments: the default kind (x11 or wayland) and the
# default size of the screen, then those of the script: [KIND [SIZE [CHECK]...]].

set -euo pipefail
kind=${3:-$1} size=${4:-$2} checks=("${@:5}")
hosts=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
cd -- "$hosts/../.."
. scripts/steps.bash

suite=bookworm
mirror=${KESTRUNE_MIRROR:-http://deb.debian.org/debian}
cache=${KESTRUNE_HOSTS:-${XDG_CACHE_HOME:-$HOME/.cache}/kestrune-hosts}

# The packages in every system: the client's dependencies, service managers, fonts, and tools that move the pointer and
# read the screen.
common=(systemd systemd-sysv dbus dbus-user-session libpam-systemd polkitd upower sudo locales iproute2
    "${run_packages[@]}" python3-gi qt6-gtk-platformtheme libqt6widgets6 libmnl0 libutf8proc2 libqrencode4 at-spi2-core
    fonts-noto-cjk fonts-noto-color-emoji libgl1-mesa-dri libegl1 libglib2.0-bin xdg-utils xvfb x11-utils
    xdotool imagemagick zbar-tools)

# make_root DESKTOP PACKAGE...: installs a Debian system with these packages in the cache, unless the cache has it.
make_root() {
    local root=$cache/$1
    [ ! -d "$root" ] || return 0
    shift
    rm -rf --one-file-system -- "$root.new"
    step "Installing a $suite system in $root (several minutes)" mmdebstrap --variant=apt --mode=root \
        --include="$(IFS=,; echo "${common[*]},$*")" --customize-hook="$hosts/prepare-root \"\$1\"" \
        "$suite" "$root.new" "$mirror"
    mv -- "$root.new" "$root"
}

# make_packages: builds the client's packages from this tree, in $work/packages. Builds in $cache: files of root in the
# folder build/release of the tree would make the user's next ./run fail.
make_packages() {
    local build=$cache/build$PWD
    step "Configuring the client" cmake --preset release -B "$build"
    step "Building the client" cmake --build "$build"
    step "Packing the client" cpack --config "$build/CPackConfig.cmake" -B "$work/packages"
}

# A script that mounts the machine's control groups (version 2) at /sys/fs/cgroup, and runs its arguments as a command.
in_cgroups='umount --recursive /sys/fs/cgroup; mount -t cgroup2 cgroup2 /sys/fs/cgroup; exec "$@"'
# A script that makes a new control group with the name $1, and runs its other arguments as a command in that group.
in_new_group='mkdir "/sys/fs/cgroup/$1"; echo $$ >"/sys/fs/cgroup/$1/cgroup.procs"; shift; exec "$@"'

# boot DESKTOP: boots the system of the desktop. All changes in it are discarded when it ends.
boot() {
    local try
    group=kestrune-$1-$$
    unshare --mount bash -euc "$in_cgroups" - bash -euc "$in_new_group" - "$group" \
        systemd-nspawn --quiet --boot --register=no --keep-unit --private-network --volatile=overlay --tmpfs=/tmp \
        --capability=CAP_WAKE_ALARM,CAP_SYS_NICE --console=pipe --machine="$group" --directory="$cache/$1" \
        --bind-ro="$PWD:/source" --bind-ro="$work:/given" --bind="$pictures:/pictures" >"$work/console" 2>&1 </dev/null &
    nspawn=$!
    disown
    for ((try = 0; try < 300; ++try)); do
        init=$(pgrep --oldest --parent "$nspawn") || true
        [ -z "$init" ] || ! inside systemctl is-active --quiet multi-user.target 2>/dev/null || return 0
        kill -0 "$nspawn" 2>/dev/null || break
        sleep 0.2
    done
    cat -- "$work/console" >&2
    fail "The system of $1 does not boot."
}

# inside COMMAND...: runs the command in the booted system, as root.
inside() {
    nsenter --target "$init" --all /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 "$@"
}

# start_session COMMAND VARIABLE=VALUE...: in the booted system, starts the desktop as a session of the user.
start_session() {
    local command=$1
    shift
    cat >/etc/systemd/system/xvfb.service <<UNIT
[Service]
User=user
ExecStart=/usr/bin/Xvfb :0 -screen 0 ${size}x24 -noreset -nolisten tcp -ac
UNIT
    cat >/etc/systemd/system/desktop.service <<UNIT
[Unit]
$([ "$kind" = wayland ] || printf '%s\n' Requires=xvfb.service After=xvfb.service)
[Service]
User=user
PAMName=login
WorkingDirectory=/home/user
Environment=XDG_SESSION_TYPE=$kind XDG_SESSION_CLASS=user LANG=zh_TW.UTF-8 LIBGL_ALWAYS_SOFTWARE=1 $*
$([ "$kind" = wayland ] || echo Environment=DISPLAY=:0)
ExecStart=$command
UNIT
    dpkg --install /given/packages/*.deb >/dev/null
    cp -a /source/examples/backend /home/user/backend
    chown -R user: /home/user
    systemctl daemon-reload
    systemctl start desktop
}

# check DESKTOP [CHECK]...: in the booted system, runs the checks as the user of the session.
check() {
    runuser -u user -- env -i PATH=/usr/local/bin:/usr/bin:/bin HOME=/home/user LANG=zh_TW.UTF-8 \
        XDG_RUNTIME_DIR=/run/user/1000 DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/1000/bus XDG_SESSION_TYPE="$kind" \
        PYTHONPATH=/source/tests python3 -B -m "hosts.$1" "$size" "${@:2}"
}

# host DESKTOP PACKAGE...: makes and boots the desktop's system, starts the session there by `prepare`, a function of
# the calling script, and runs the checks.
host() {
    local name=$1
    [ "$(id -u)" -eq 0 ] || fail "systemd-nspawn needs root: sudo tests/hosts/$name"
    [ "$(. /etc/os-release && echo "${VERSION_CODENAME:-}")" = "$suite" ] ||
        fail "This needs Debian 12 ($suite): the packages are built on this machine, and installed in a system of that release."
    install_missing "${build_packages[@]}" "${package_packages[@]}" mmdebstrap systemd-container
    mkdir -p -- "$cache"
    work=$(mktemp -d -p /var/tmp)
    trap 'end_host; rm -rf --one-file-system -- "$log" "$work"' EXIT
    pictures=${KESTRUNE_SCREENSHOTS:-$cache/pictures-$name-$kind-$size}
    mkdir -p -- "$pictures"
    chmod 777 -- "$pictures"
    make_root "$@"
    make_packages
    boot "$name"
    inside bash -euc "kind=$kind size=$size; $(declare -f prepare start_session check); prepare; check $name ${checks[*]}" ||
        status=$?
    echo "Pictures: $pictures"
    exit "${status:-0}"
}

# Kills the first process of the booted system, and so all its processes. Nothing of the system is kept.
end_host() {
    [ -n "${group:-}" ] || return 0
    kill -KILL "${init:-$nspawn}" 2>/dev/null || true
    unshare --mount bash -euc "$in_cgroups" - bash -euc '
        cd "/sys/fs/cgroup/$0"
        while grep -q "populated 1" cgroup.events; do sleep 0.1; done
        find "$PWD" -depth -type d -exec rmdir {} +' "$group" || true
}
