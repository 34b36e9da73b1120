#!/usr/bin/env bash
# A real backup, end to end, on this machine: builds Skerrow, makes a disk
# image and a demo user with a small generated home folder, starts a
# private D-Bus system bus and skerrowd, and uses skerrowctl as that user
# to put a backup on the disk, back up with live progress, change a file,
# back up again and list the stored versions of that file.
#
# Nothing of the machine is changed: the demo user exists only for the
# programs started here (nss_wrapper), the bus is private, and the disk is
# a loop-mounted image.  Everything is removed at the end, also on failure
# or Ctrl-C.  Run as root (the engine runs as root; mounting needs it).
#
#   scripts/demo.sh [--build-dir DIR] [--keep] [--shell] [--files N] [--bytes SIZE] [--disk SIZE]
#     --build-dir DIR   build into DIR (default build/)
#     --keep            leave the demo folder (disk image, home) for a look
#     --shell           set everything up, then open a shell as the demo user
#                       (skerrowctl on its PATH, continuous backup on) to try
#                       things by hand; leaving the shell cleans up
#     --files N, --bytes SIZE   the generated home (default 400 files, 24M)
#     --disk SIZE       the disk image (default 256M)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

build=build
keep=0
shell=0
files=400
bytes=24M
disk_size=256M
while [ $# -gt 0 ]; do
  case "$1" in
    --build-dir) build="$2"; shift 2 ;;
    --keep) keep=1; shift ;;
    --shell) shell=1; shift ;;
    --files) files="$2"; shift 2 ;;
    --bytes) bytes="$2"; shift 2 ;;
    --disk) disk_size="$2"; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done
[ "$(id -u)" -eq 0 ] || { echo "Run the demo as root (sudo $0): it mounts a disk image and runs the engine." >&2; exit 1; }

step() { printf '\n\033[1m==> %s\033[0m\n' "$*"; }

step "Installing what is missing and building"
scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target skerrowd skerrowctl skerrow_make_home
bin="$top/$build/bin"
make_home=$(find "$top/$build" -name skerrow_make_home -type f -perm -u+x | head -n1)
nss=$(find /usr/lib /lib -name 'libnss_wrapper.so*' 2>/dev/null | head -n1)
[ -n "$nss" ] || { echo "libnss_wrapper is missing" >&2; exit 1; }

work=$(mktemp -d /tmp/skerrow-demo.XXXXXX)
chmod 755 "$work"
bus_pid=""; engine_pid=""; loop_dev=""
cleanup() {
  set +e
  [ -n "$engine_pid" ] && kill "$engine_pid" 2>/dev/null && wait "$engine_pid" 2>/dev/null
  [ -n "$bus_pid" ] && kill "$bus_pid" 2>/dev/null && wait "$bus_pid" 2>/dev/null
  mountpoint -q "$work/disk" && umount "$work/disk"
  [ -n "$loop_dev" ] && losetup -d "$loop_dev" 2>/dev/null
  if [ "$keep" = 1 ]; then echo "Left in $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step "Making the demo user \"demo\" (uid 4242) with a generated home folder"
home="$work/home/demo"
mkdir -p "$work/home"
cat >"$work/passwd" <<EOF
root:x:0:0:root:/root:/bin/sh
demo:x:4242:4242:Demo User:$home:/bin/sh
nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin
EOF
cat >"$work/group" <<EOF
root:x:0:
demo:x:4242:
nogroup:x:65534:
EOF
"$make_home" -n "$files" -b "$bytes" -s 7 -q "$home"
mkdir -p "$home/Documents"
echo "The first draft of the report." >"$home/Documents/report.txt"
chown -R 4242:4242 "$home"
nss_env=(LD_PRELOAD="$nss" NSS_WRAPPER_PASSWD="$work/passwd" NSS_WRAPPER_GROUP="$work/group")
echo "$(find "$home" -type f | wc -l) files, $(du -sh "$home" | cut -f1) in $home"

step "Making a $disk_size ext4 disk image and mounting it"
truncate -s "$disk_size" "$work/disk.img"
mkfs.ext4 -q -L SkerrowDemo "$work/disk.img"
loop_dev=$(losetup -f --show "$work/disk.img")
mkdir -p "$work/disk"
mount "$loop_dev" "$work/disk"
echo "$loop_dev mounted at $work/disk"

step "Starting a private system bus and skerrowd"
sed -e "s|@SOCKET@|$work/bus.socket|" >"$work/bus.conf" <<'EOF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path=@SOCKET@</listen>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus.Introspectable"/>
  </policy>
  <include>@POLICY@</include>
</busconfig>
EOF
sed -i "s|@POLICY@|$top/data/com.qsc.skerrow.conf|" "$work/bus.conf"
env "${nss_env[@]}" dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile 2>"$work/dbus.log" &
bus_pid=$!
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus.socket"
for _ in $(seq 100); do [ -S "$work/bus.socket" ] && break; sleep 0.05; done
mkdir -p "$work/root"
realtime=(-noRealtime)
[ "$shell" = 1 ] && realtime=()
env "${nss_env[@]}" SKERROW_ROOT="$work/root" SKERROW_LOG_STDERR=1 "$bin/skerrowd" "${realtime[@]}" >"$work/skerrowd.log" 2>&1 &
engine_pid=$!
as_demo() { setpriv --reuid=4242 --regid=4242 --clear-groups env "${nss_env[@]}" HOME="$home" "$bin/skerrowctl" "$@"; }
for _ in $(seq 100); do as_demo heartbeat >/dev/null 2>&1 && break; sleep 0.1; done
as_demo heartbeat

if [ "$shell" = 1 ]; then
  step "A shell as the demo user: try skerrowctl (manage $work/disk, backup, list, ...); exit to clean up"
  echo "The engine's log: $work/skerrowd.log"
  setpriv --reuid=4242 --regid=4242 --clear-groups env "${nss_env[@]}" HOME="$home" \
    PATH="$bin:$PATH" DBUS_SYSTEM_BUS_ADDRESS="$DBUS_SYSTEM_BUS_ADDRESS" PS1='demo$ ' bash --norc -i || true
  exit 0
fi

step "skerrowctl manage $work/disk --depth 5"
as_demo manage "$work/disk" --depth 5
as_demo list

step "skerrowctl backup (the first backup copies everything)"
as_demo backup

step "Changing Documents/report.txt"
sleep 1  # a new modification time, to the second, for people reading the listing
echo "The second draft, with the numbers." >"$home/Documents/report.txt"
chown 4242:4242 "$home/Documents/report.txt"

step "skerrowctl backup (only the changed file is copied)"
as_demo backup

step "skerrowctl versions Documents/report.txt"
as_demo versions Documents/report.txt

step "skerrowctl restore Documents/report.txt --version 0 --to ~/first-draft.txt"
as_demo restore Documents/report.txt --version 0 --to "$home/first-draft.txt"
cat "$home/first-draft.txt"
echo "The demo is over; cleaning up."
