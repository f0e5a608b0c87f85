# Describes the desktop session for --diagnose. CMake compiles this script into the client, which runs it by `bash -c`.
# Its argument is the path of KestruneMenuDialogs. Programs that could hang run with a timeout of 2 s. If a bus does not
# answer the first call, the script makes no more calls on this bus. No call starts a D-Bus service.
exec 2> /dev/null
daemon=(org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus)
declare -A state=([user]=answers [system]=answers)

# Calls a method by busctl, and prints the answer. Does nothing if this bus has not answered before. Decodes
# the escape sequences of busctl, but leaves no double quote inside a string. Usage:
# call user|system SERVICE PATH INTERFACE METHOD [SIGNATURE ARGUMENT...]
call() {
  local reply
  [[ ${state[$1]} == answers ]] || return
  reply=$(timeout 2 busctl "--$1" --auto-start=no call "${@:2}") || return
  printf '%b\n' "${reply//\\\"/\'}"
}
# Prints the process that owns a bus name. Usage: owner user|system NAME
owner() {
  local process
  read -r _ process < <(call "$1" "${daemon[@]}" GetConnectionUnixProcessID s "$2")
  if [[ $process ]]; then echo "$(< "/proc/$process/comm") (process $process)"; else echo none; fi
}
# Prints the first line of a program's output. Usage: first_line PROGRAM ARGUMENT...
first_line() {
  local line
  read -r line < <(timeout 2 "$@" 2>&1)
  echo "${line:-no output within 2 seconds}"
}
# Prints a font that has some characters, or the package to install. Usage: font NAME PATTERN PACKAGE
font() {
  local family="unknown: fc-list is not installed"
  if type -P fc-list > /dev/null; then
    read -r family < <(timeout 2 fc-list --format '%{family[0]}\n' "$2")
  fi
  echo "  $1: ${family:-none: install $3}"
}

echo "System: $(. /etc/os-release; echo "${PRETTY_NAME:-Linux}"), $(uname -srm)"
echo Desktop:
for name in XDG_CURRENT_DESKTOP XDG_SESSION_TYPE DISPLAY WAYLAND_DISPLAY XDG_RUNTIME_DIR LANG; do
  echo "  $name: ${!name-not set}"
done
windows="$1 is missing (package kestrune-menu-dialogs)"
[[ ! -x $1 ]] || windows=$(first_line "$1" --version)
[[ $DISPLAY$WAYLAND_DISPLAY ]] || windows+=", no display"
echo "Windows: $windows"
echo Fonts:
font Chinese :lang=zh-tw fonts-noto-cjk
font "colour emoji" :charset=1f7e2:color=true fonts-noto-color-emoji

for each in user system; do
  call $each "${daemon[@]}" GetId > /dev/null || state[$each]="does not answer"
  type -P busctl > /dev/null || state[$each]="unknown: busctl is not installed"
done
echo "Session bus: ${state[user]}"
echo "System bus: ${state[system]}"

tray=org.kde.StatusNotifierWatcher
echo "Tray: $(owner user $tray)"
property=("$tray" /StatusNotifierWatcher org.freedesktop.DBus.Properties Get ss "$tray")
read -r _ _ host < <(call user "${property[@]}" IsStatusNotifierHostRegistered)
[[ ! $host ]] || IFS='"' read -ra items < <(call user "${property[@]}" RegisteredStatusNotifierItems)
[[ $host == true ]] && echo "  shows items: yes"
[[ $host == false ]] && echo "  shows items: no, no tray host is registered"
for ((i = 1; i < ${#items[@]}; i += 2)); do echo "  item: ${items[i]}"; done

notifications=org.freedesktop.Notifications
IFS='"' read -r _ name _ vendor _ version _ < <(
  call user $notifications /org/freedesktop/Notifications $notifications GetServerInformation)
notifier="$name $version ($vendor)"
[[ $name ]] || notifier=$(owner user $notifications)
echo "Notifications: $notifier"

manager=org.gnome.SessionManager power=org.freedesktop.PowerManagement login=org.freedesktop.login1
echo "Services that can keep the machine awake:"
for name in $manager org.freedesktop.ScreenSaver $power; do echo "  $name: $(owner user "$name")"; done
echo "  $login: $(owner system $login)"
inhibitors=$(
  IFS='"' read -ra part < <(call system $login /org/freedesktop/login1 $login.Manager ListInhibitors)
  for ((i = 1; i + 7 < ${#part[@]}; i += 8)); do
    read -r _ process _ <<< "${part[i + 7]}"
    echo "  $login: ${part[i]} (${part[i + 6]}) by ${part[i + 2]}, process $process"
  done
  IFS='"' read -ra part < <(call user $manager /org/gnome/SessionManager $manager GetInhibitors)
  for ((i = 1; i < ${#part[@]}; i += 2)); do
    IFS='"' read -r _ program _ < <(call user $manager "${part[i]}" $manager.Inhibitor GetAppId)
    echo "  $manager: $program"
  done
  # HasInhibit tells whether any program holds an inhibitor, but not which program.
  read -r _ held < <(call user $power /org/freedesktop/PowerManagement/Inhibit $power.Inhibit HasInhibit)
  [[ $held == true ]] && echo "  $power: unknown program"
)
echo "Inhibitors:"
echo "${inhibitors:-  none known}"

echo Programs:
for name in bash curl lsof pgrep systemctl busctl xdg-open gio; do
  file=$(type -P $name)
  [[ $name != curl || ! $file ]] || file+=", $(first_line curl --version)"
  echo "  $name: ${file:-not found}"
done
