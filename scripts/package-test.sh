#!/usr/bin/env bash
# The Debian packages, end to end, on this machine:
#
#  1. builds skerrow and skerrow-client with dpkg-buildpackage from a clean
#     clone of the committed tree (HEAD), without the test suite;
#  2. runs lintian on them (no error, no warning);
#  3. installs them with apt-get install ./...deb and checks what landed:
#     the unit (systemd-analyze verify, and security at 3.0 or below), the
#     conffile in /etc/skerrow, the database folder made by tmpfiles.d;
#  4. as an administrator would, adds "iso" to the black list in
#     /etc/skerrow/Info.plist; starts the INSTALLED /usr/sbin/skerrowd as
#     root on a private system bus whose configuration includes the
#     installed policy, confined as its unit says (scripts/confine/); mounts
#     an ext4 disk image; and, as a fake user (nss_wrapper), backs up with
#     the installed skerrowctl, changes a file, backs up again, lists the
#     versions and restores the first; activates the backup and sees a saved
#     draft stored by continuous backup; fanotify filesystem marks and file
#     handles are tried under the same confinement; and each capability of
#     the bounding set is shown to be needed (without it, the engine or the
#     fanotify probe does visibly worse);
#  5. shows D-Bus activation: on a bus that reads the installed activation
#     file, the user's first skerrowctl call starts /usr/sbin/skerrowd;
#  6. removes the packages (the edited conffile stays), purges them, and
#     shows that nothing of them is left: no file of their dpkg -L lists, no
#     /etc/skerrow, no database folder, nothing named skerrow in /etc, /usr
#     or /var/lib.
#
# The machine is left as it was: it refuses to run when Skerrow is installed
# or its folders exist, removes the packages that installing pulled in, and
# cleans up on failure or Ctrl-C too.  Run as root; needs loop devices.
#
#   scripts/package-test.sh [--keep-debs DIR]
#     --keep-debs DIR   copy the built .deb files into DIR
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
started=$(date +%s)

keep_debs=""
while [ $# -gt 0 ]; do
  case "$1" in
    --keep-debs) keep_debs="$2"; shift 2 ;;
    *) echo "unknown option: $1" >&2; exit 2 ;;
  esac
done

step() { printf '\n==> %s\n' "$*"; }
fail() { echo "package-test: FAILED: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || fail "run as root: it installs packages, mounts a disk image and runs the engine"
export DEBIAN_FRONTEND=noninteractive

store="/Library/Application Support/Vornhalden"
for p in skerrow skerrow-client; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -qv "not-installed"; then
    fail "$p is installed (or not purged) on this machine; this test would change it"
  fi
done
[ ! -e /etc/skerrow ] || fail "/etc/skerrow exists; this test would change it"
# An empty database folder (left by an engine run without SKERROW_ROOT) is
# put back as it was at the end; one holding a database is not touched.
store_mode=""
if [ -e "$store" ]; then
  [ -d "$store" ] && [ -z "$(ls -A "$store")" ] || fail "$store holds a database; this test would change it"
  store_mode=$(stat -c %a "$store")
fi
library_existed=0
[ -e /Library ] && library_existed=1
restore_store() { [ -n "$store_mode" ] && install -d -m "$store_mode" "$store"; true; }

step "Installing what building and testing the packages needs"
scripts/install-deps.sh --package

# A fixed place, so ccache finds the same paths (and hits) on the next run.
work=/var/tmp/skerrow-package-test
[ ! -e "$work" ] || fail "$work exists: another run is under way, or an earlier one was killed (remove it)"
# What the fake user, the bus and the engine share lives in /run: the engine's
# unit gives it a private /tmp and /var/tmp.
run=$(mktemp -d /run/skerrow-package-test.XXXXXX)
chmod 755 "$run"
mkdir -p "$work"
bus_pid=""; engine_pid=""; loop_dev=""; installed_by_us=0; pulled_in=()
cleanup() {
  set +e
  [ -n "$engine_pid" ] && kill "$engine_pid" 2>/dev/null && wait "$engine_pid" 2>/dev/null
  if [ -n "$bus_pid" ]; then
    # An engine the bus started on demand goes with the bus's process group.
    kill -- "-$bus_pid" 2>/dev/null || kill "$bus_pid" 2>/dev/null
    wait "$bus_pid" 2>/dev/null
  fi
  mountpoint -q "$run/media/disk" && umount "$run/media/disk"
  [ -n "$loop_dev" ] && losetup -d "$loop_dev"
  mountpoint -q "$run/media" && umount "$run/media"
  if [ "$installed_by_us" = 1 ]; then
    apt-get purge -y -qq skerrow skerrow-client >/dev/null 2>&1
    [ ${#pulled_in[@]} -gt 0 ] && apt-get purge -y -qq "${pulled_in[@]}" >/dev/null 2>&1
    rm -rf "$store"
    [ "$library_existed" = 0 ] && rm -rf /Library
    restore_store
  fi
  rm -rf "$work" "$run"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

step "Building the packages from a clean clone of $(git rev-parse --short HEAD)"
git clone -q --no-local "$top" "$work/skerrow"
build_started=$(date +%s)
if command -v ccache >/dev/null; then
  export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"
fi
(cd "$work/skerrow" && dpkg-buildpackage -us -uc -b >"$work/build.log" 2>&1) ||
  { tail -n 40 "$work/build.log"; fail "dpkg-buildpackage"; }
echo "built in $(($(date +%s) - build_started)) s:"
(cd "$work" && ls -1 ./*.deb)
[ -n "$keep_debs" ] && mkdir -p "$keep_debs" && cp "$work"/*.deb "$keep_debs"/

step "lintian"
changes=$(ls "$work"/skerrow_*.changes)
lintian --fail-on error,warning --display-info "$changes" | tee "$work/lintian.log" || fail "lintian"
echo "lintian: $(grep -c '^[EW]:' "$work/lintian.log" || true) errors and warnings"

step "apt-get install ./skerrow_*.deb ./skerrow-client_*.deb"
before=$(dpkg-query -W -f='${Package}\n' | sort)
installed_by_us=1
apt-get install -y -qq "$work"/skerrow_*.deb "$work"/skerrow-client_*.deb >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; fail "apt-get install"; }
after=$(dpkg-query -W -f='${Package}\n' | sort)
mapfile -t pulled_in < <(comm -13 <(echo "$before") <(echo "$after") | grep -vx -e skerrow -e skerrow-client || true)
[ ${#pulled_in[@]} -gt 0 ] && echo "also installed (removed again at the end): ${pulled_in[*]}"
dpkg -L skerrow skerrow-client | sort -u >"$work/files"
grep -v '^/\.$' "$work/files" | while read -r f; do [ -d "$f" ] || echo "$f"; done >"$work/package-files"
cat "$work/package-files"

step "What the packages installed"
version=$(dpkg-query -W -f='${Version}' skerrow)
[ "$(/usr/sbin/skerrowd --version)" = "skerrowd ${version%%-*}" ] || fail "skerrowd --version: $(/usr/sbin/skerrowd --version)"
[ "$(skerrowctl --version)" = "skerrowctl ${version%%-*}" ] || fail "skerrowctl --version: $(skerrowctl --version)"
echo "skerrowd --version: $(/usr/sbin/skerrowd --version); skerrowctl --version: $(skerrowctl --version)"
unit_dir=$(pkg-config --variable=systemdsystemunitdir systemd)
unit="$unit_dir/skerrowd.service"
[ -f "$unit" ] || fail "no $unit"
dpkg-query -W -f='${Conffiles}\n' skerrow | grep -q "^ /etc/skerrow/Info.plist " || fail "/etc/skerrow/Info.plist is not a conffile"
echo "conffile: /etc/skerrow/Info.plist"
[ -d "$store" ] || fail "tmpfiles.d did not make $store"
[ "$(stat -c %a "$store")" = 700 ] || fail "$store has mode $(stat -c %a "$store")"
echo "database folder: $store (0700, made by tmpfiles.d)"
man -w skerrowd >/dev/null && man -w skerrowctl >/dev/null || fail "man pages"
systemd-analyze verify "$unit" || fail "systemd-analyze verify $unit"
echo "systemd-analyze verify $unit: no complaint"
exposure=$(systemd-analyze security --offline=yes "$unit" 2>&1 | sed -n 's/.*Overall exposure level for skerrowd.service: \([0-9.]*\).*/\1/p')
echo "systemd-analyze security: $exposure"
awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 3.0) }' || fail "exposure $exposure is above 3.0"

step "An administrator adds \"iso\" to the black list in /etc/skerrow/Info.plist"
sed -i '/<key>QSFileExtensions<\/key>/{n;s|<array>|<array>\n\t\t\t<string>iso</string>|}' /etc/skerrow/Info.plist
grep -q '<string>iso</string>' /etc/skerrow/Info.plist || fail "could not edit /etc/skerrow/Info.plist"

step "A fake user \"ann\" (uid 4343) with a small home folder"
home="$run/home/ann"
mkdir -p "$home/Documents/shared" "$home/Pictures" "$home/.cache/thumbnails"
cat >"$run/passwd" <<EOF
root:x:0:0:root:/root:/bin/sh
ann:x:4343:4343:Ann Example:$home:/bin/sh
EOF
printf 'root:x:0:\nann:x:4343:\n' >"$run/group"
echo "The first draft." >"$home/Documents/report.txt"
head -c 300000 /dev/urandom >"$home/Pictures/holiday.jpg"
head -c 100000 /dev/urandom >"$home/Documents/installer.iso"
echo "cache" >"$home/.cache/thumbnails/x.png"
echo "Notes for the team." >"$home/Documents/shared/notes.txt"
chmod 600 "$home/Documents/report.txt"
chown -R 4343:4343 "$run/home"
chmod 2750 "$home/Documents/shared"   # a shared folder: set-group-ID, kept on the copy
nss=$(find /usr/lib /lib -name 'libnss_wrapper.so*' 2>/dev/null | head -n1)
[ -n "$nss" ] || fail "libnss_wrapper is missing"
nss_env=(LD_PRELOAD="$nss" NSS_WRAPPER_PASSWD="$run/passwd" NSS_WRAPPER_GROUP="$run/group")
as_ann() { setpriv --reuid=4343 --regid=4343 --clear-groups env "${nss_env[@]}" HOME="$home" skerrowctl "$@"; }
wait_for() {  # wait_for SECONDS COMMAND...: runs COMMAND until it succeeds
  local until=$(($(date +%s) + $1)); shift
  until "$@" >/dev/null 2>&1; do
    [ "$(date +%s)" -lt "$until" ] || return 1
    sleep 0.1
  done
}

bus_config() {  # bus_config TYPE [SERVICE-DIR]: a private bus including the installed policy
  cat <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>$1</type>
  <auth>EXTERNAL</auth>
  <listen>unix:path=$run/bus.socket</listen>
  ${2:+<servicedir>$2</servicedir>}
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
  <include>/usr/share/dbus-1/system.d/com.qsc.skerrow.conf</include>
</busconfig>
EOF
}
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$run/bus.socket"
start_bus() {
  bus_config "$@" >"$run/bus.conf"
  setsid env "${nss_env[@]}" dbus-daemon --config-file="$run/bus.conf" --nofork --nopidfile &
  bus_pid=$!
  wait_for 10 test -S "$run/bus.socket" || fail "the private bus did not start"
}
stop_bus() {
  kill -- "-$bus_pid" 2>/dev/null || true
  wait "$bus_pid" 2>/dev/null || true
  bus_pid=""
  rm -f "$run/bus.socket"
}

step "The installed skerrowd, confined as $unit says, on a private system bus"
# Disks are mounted below $run/media, made a shared mount as every mount is on
# a machine booted with systemd, so that a disk mounted later reaches the
# engine's own mount namespace as it reaches a service's.
mkdir -p "$run/media"
mount --bind "$run/media" "$run/media"
mount --make-shared "$run/media"
start_bus system
scripts/confine/run-confined.sh "$unit" /usr/bin/env "${nss_env[@]}" SKERROW_LOG_STDERR=1 /usr/sbin/skerrowd \
  2>"$run/skerrowd.log" &
engine_pid=$!
wait_for 30 as_ann heartbeat || { cat "$run/skerrowd.log"; fail "the engine does not answer"; }
as_ann heartbeat
grep -q "Black list settings from /etc/skerrow/Info.plist" "$run/skerrowd.log" ||
  { cat "$run/skerrowd.log"; fail "the engine did not read /etc/skerrow/Info.plist"; }
echo "engine log: $(grep "Black list settings from" "$run/skerrowd.log")"
# run-confined.sh ends by executing the engine itself, so this is its process.
[ "$(readlink "/proc/$engine_pid/exe")" = /usr/sbin/skerrowd ] || fail "the engine's process is $(readlink "/proc/$engine_pid/exe")"
grep -E '^(CapBnd|CapEff|NoNewPrivs|Seccomp):' "/proc/$engine_pid/status" | tr '\n\t' '  '
echo

step "A 64 MiB ext4 disk, mounted after the engine started (like a disk plugged in)"
truncate -s 64M "$run/disk.img"
mkfs.ext4 -q -L PackageTest "$run/disk.img"
loop_dev=$(losetup -f --show "$run/disk.img")
disk="$run/media/disk"
mkdir -p "$disk"
mount "$loop_dev" "$disk"
chmod 755 "$disk"
wait_for 10 grep -q "appeared at $disk" "$run/skerrowd.log" || { cat "$run/skerrowd.log"; fail "the engine did not see the disk"; }
grep "appeared at $disk" "$run/skerrowd.log"

step "skerrowctl manage $disk, backup"
as_ann manage "$disk" --depth 3 --period 86400 || { cat "$run/skerrowd.log"; fail "manage"; }
as_ann list
as_ann backup || { tail -n 30 "$run/skerrowd.log"; fail "the first backup did not complete"; }
backup_dir=$(find "$disk/qs skerrow.skstor" -mindepth 1 -maxdepth 1 -type d | head -n1)
[ -n "$backup_dir" ] || fail "no backup folder on the disk"
stored=$(find "$backup_dir/Documents" -name 'report*.txt' | head -n1)
[ -n "$stored" ] && [ "$(cat "$stored")" = "The first draft." ] || fail "Documents/report.txt is not on the disk"
[ "$(stat -c '%u %a' "$stored")" = "4343 600" ] || fail "the copy's owner and mode: $(stat -c '%u %a' "$stored")"
find "$backup_dir" -name 'holiday*.jpg' | grep -q . || fail "Pictures/holiday.jpg is not on the disk"
[ "$(stat -c '%u %g %a' "$backup_dir/Documents/shared")" = "4343 4343 2750" ] ||
  fail "the shared folder's copy: $(stat -c '%u %g %a' "$backup_dir/Documents/shared") (not 4343 4343 2750)"
if find "$backup_dir" -name '*.iso' | grep -q .; then fail "installer.iso was backed up despite /etc/skerrow/Info.plist"; fi
if find "$backup_dir" -path '*/.cache*' | grep -q .; then fail ".cache was backed up"; fi
echo "on the disk: $(find "$backup_dir" -type f ! -name '.com.qsc.backupinfo' | sed "s|$backup_dir/||" | sort | tr '\n' ' ')"
echo "the copy of report.txt: owner 4343, mode 600; Documents/shared: mode 2750; installer.iso and .cache left out"

step "A second draft, a second backup, the versions, restoring the first"
echo "The second draft, longer." >"$home/Documents/report.txt"
as_ann backup >/dev/null || fail "the second backup did not complete"
# Only the changed file is copied again: an unchanged one is recognised by
# its stored creation date, read through the unit's system-call filter.
stored_now=$(find "$backup_dir" -type f ! -name '.com.qsc.backupinfo' | sed "s|$backup_dir/||" | sort | tr '\n' ' ')
[ "$stored_now" = "Documents/report@0.txt Documents/report@1.txt Documents/shared/notes@0.txt Pictures/holiday@0.jpg " ] ||
  fail "after the second backup the disk holds: $stored_now"
echo "on the disk: $stored_now"
as_ann versions Documents/report.txt | tee "$run/versions"
[ "$(grep -c 'report' "$run/versions")" -ge 2 ] || fail "two versions of report.txt are not listed"
as_ann restore Documents/report.txt --version 0 --to "$home/first-draft.txt"
[ "$(cat "$home/first-draft.txt")" = "The first draft." ] || fail "the restored first draft"
echo "restored: $(cat "$home/first-draft.txt")"

step "Continuous backup under the confinement: a saved file is stored without asking"
# Scheduled again (not due before tomorrow), so only the engine's fanotify
# watch of the home's file system can store the next draft.
as_ann activate
echo "The third draft." >"$home/Documents/report.txt"
chown 4343:4343 "$home/Documents/report.txt"
wait_for 30 test -f "$backup_dir/Documents/report@2.txt" ||
  { tail -n 30 "$run/skerrowd.log"; fail "the saved file was not stored by continuous backup"; }
[ "$(cat "$backup_dir/Documents/report@2.txt")" = "The third draft." ] || fail "report@2.txt holds $(cat "$backup_dir/Documents/report@2.txt")"
grep -m1 "++++++ did backup: " "$run/skerrowd.log" || fail "the engine's log does not show a real-time copy"
echo "stored by continuous backup: Documents/report@2.txt"

step "fanotify filesystem marks and file handles under the same confinement (a probe)"
cc -O2 -Wall -o "$run/fanotify_probe" tests/tools/fanotify_probe.c
# On /mnt, one of the unit's writable places: the probe writes a file to see its event.
scripts/confine/run-confined.sh "$unit" "$run/fanotify_probe" /mnt 2>"$run/probe.err" ||
  { cat "$run/probe.err"; fail "fanotify under the unit's confinement"; }

step "The engine stops on SIGTERM with its database saved"
kill -TERM "$engine_pid"
wait "$engine_pid" && status=0 || status=$?
engine_pid=""
[ "$status" = 0 ] || { tail -n 20 "$run/skerrowd.log"; fail "skerrowd ended with status $status"; }
tail -n 2 "$run/skerrowd.log"
[ -f "$store/backupdb.plist" ] || fail "no $store/backupdb.plist"
stop_bus

step "Each capability of the bounding set is needed"
# The engine, or the probe, with one capability less must do visibly worse;
# a capability nothing misses would not belong in the unit.
start_bus system
seen_again() { [ "$(grep -c "appeared at $disk" "$run/without.log")" -ge 2 ]; }
without() { sed -E "/^CapabilityBoundingSet=/ s/(=| )$1\b/\1/" "$unit" >"$run/without.service"; }
for cap in CAP_CHOWN CAP_FOWNER CAP_FSETID CAP_DAC_OVERRIDE; do
  without "$cap"
  scripts/confine/run-confined.sh "$run/without.service" /usr/bin/env "${nss_env[@]}" SKERROW_LOG_STDERR=1 \
    /usr/sbin/skerrowd -noRealtime 2>"$run/without.log" &
  engine_pid=$!
  wait_for 30 as_ann heartbeat || { cat "$run/without.log"; fail "the engine without $cap does not answer"; }
  # Plugged in again after the engine started, as the unit's disks are.
  umount "$disk" && mount "$loop_dev" "$disk"
  wait_for 10 seen_again || { cat "$run/without.log"; fail "the engine without $cap did not see the disk again"; }
  managed=$(as_ann --json manage "$disk" --depth 1 --period 86400 2>&1) || true
  uid=$(grep -o '"uid":"[0-9A-F-]*"' <<<"$managed" | head -n1 | cut -d'"' -f4 || true)
  if [ -z "$uid" ]; then
    seen="manage refused: $managed"
  else
    as_ann backup "$uid" >/dev/null 2>&1 && status=0 || status=$?
    copy="$disk/qs skerrow.skstor/$uid"
    seen="backup exit status $status"
    [ -e "$copy/Documents/shared" ] && seen+=", Documents/shared $(stat -c '%u:%g %a' "$copy/Documents/shared")"
    [ -e "$copy/Documents/report@0.txt" ] && seen+=", report $(stat -c '%u:%g %a' "$copy/Documents/report@0.txt")"
    as_ann forget "$uid" >/dev/null || true
  fi
  echo "without $cap: $seen"
  [ "$seen" != "backup exit status 0, Documents/shared 4343:4343 2750, report 4343:4343 600" ] ||
    fail "the engine does as well without $cap"
  kill -TERM "$engine_pid"; wait "$engine_pid" || true; engine_pid=""
done
stop_bus
for cap in CAP_SYS_ADMIN CAP_DAC_READ_SEARCH; do
  without "$cap"
  if scripts/confine/run-confined.sh "$run/without.service" "$run/fanotify_probe" /mnt 2>"$run/probe.err" >/dev/null; then
    fail "fanotify works without $cap"
  fi
  echo "without $cap: $(grep '^fanotify_probe:' "$run/probe.err")"
done

step "D-Bus activation: the user's first call starts /usr/sbin/skerrowd"
# A bus that starts services itself (not through the system bus's setuid
# helper) from the installed activation file.
start_bus activation-test /usr/share/dbus-1/system-services
pid_before=$(busctl --address="$DBUS_SYSTEM_BUS_ADDRESS" status com.qsc.skerrow 2>/dev/null | sed -n 's/^PID=//p' || true)
[ -z "$pid_before" ] || fail "com.qsc.skerrow is already owned"
as_ann heartbeat || fail "the first call did not start the engine"
engine=$(busctl --address="$DBUS_SYSTEM_BUS_ADDRESS" status com.qsc.skerrow | sed -n 's/^PID=//p')
exe=$(readlink "/proc/$engine/exe")
[ "$exe" = /usr/sbin/skerrowd ] || fail "com.qsc.skerrow is $exe"
echo "activated: pid $engine, $exe"
stop_bus

step "apt-get remove: the programs go, the edited /etc/skerrow/Info.plist stays"
apt-get remove -y -qq skerrow skerrow-client >/dev/null
[ ! -e /usr/sbin/skerrowd ] && [ ! -e /usr/bin/skerrowctl ] || fail "programs left after remove"
grep -q '<string>iso</string>' /etc/skerrow/Info.plist || fail "the edited conffile did not survive remove"
echo "after remove: /etc/skerrow/Info.plist kept with the local change"

step "apt-get purge: nothing is left"
apt-get purge -y -qq skerrow skerrow-client >/dev/null
[ ${#pulled_in[@]} -gt 0 ] && apt-get purge -y -qq "${pulled_in[@]}" >/dev/null
installed_by_us=0
left=0
for p in skerrow skerrow-client; do
  if dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -qv "not-installed"; then echo "still known to dpkg: $p"; left=1; fi
done
while read -r f; do
  if [ -e "$f" ] || [ -L "$f" ]; then echo "left: $f"; left=1; fi
done <"$work/package-files"
for d in /etc/skerrow "$store"; do
  if [ -e "$d" ]; then echo "left: $d"; left=1; fi
done
if [ "$library_existed" = 0 ] && [ -e /Library ]; then echo "left: /Library"; left=1; fi
found=$(find /etc /usr /var/lib -iname '*skerrow*' -not -path "$work*" 2>/dev/null || true)
[ -z "$found" ] || { echo "left: $found"; left=1; }
[ "$left" = 0 ] || fail "something of the packages is left"
restore_store
echo "nothing left: no file of the packages' lists, no /etc/skerrow, no database folder, nothing named skerrow in /etc, /usr or /var/lib"

echo
echo "package-test: passed in $(($(date +%s) - started)) s"
