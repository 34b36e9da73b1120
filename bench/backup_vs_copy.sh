#!/usr/bin/env bash
# Side-by-side timing of a backup by skerrowd against cp and rsync, on the
# same synthetic home folder and the same loop-mounted ext4 disk.
#
#   sudo bench/backup_vs_copy.sh [-n FILES] [-b BYTES] [-s SEED] [-B BUILD_DIR] [-H HOME] [-k]
#
# Defaults: 100000 files, 1.5G, seed 1, build dir "build".  -H uses a home
# folder made earlier by skerrow_make_home (its owner becomes uid 1600) instead
# of making one.  -k keeps the work folder.  Needs root, a loop device, rsync, dbus-daemon and nss_wrapper
# (scripts/install-deps.sh installs all but rsync: apt-get install rsync).
#
# What is measured, each with warm caches (the home folder is read once
# before anything is timed):
#   cp      cp -a HOME DISK/cp, then sync -f DISK (the same syncfs the engine makes)
#   rsync   rsync -a HOME/ DISK/rsync/ a first time (not timed), then the
#           timed no-change run
#   first   skerrowd's first full backup: from "Starting UNSCHEDULED backup"
#           to "Server did save to permanent store: 1" (source count,
#           backup-folder count, dry run, copy, and the final syncfs)
#   again   the next backup, which finds nothing to copy
#   rss     skerrowd's peak resident set (VmHWM) after both passes
#   floor   the kernel calls alone of a no-change pass (stat of every item
#           on both sides, the creation date of every copy), for scale
set -euo pipefail

FILES=100000 BYTES=1.5G SEED=1 BUILD=build KEEP=0 GIVEN_HOME=""
while getopts "n:b:s:B:H:k" opt; do
  case $opt in
    n) FILES=$OPTARG ;; b) BYTES=$OPTARG ;; s) SEED=$OPTARG ;; B) BUILD=$OPTARG ;; H) GIVEN_HOME=$OPTARG ;; k) KEEP=1 ;;
    *) sed -n '2,25p' "$0"; exit 2 ;;
  esac
done
[[ $(id -u) == 0 ]] || { echo "run as root (loop devices, mounts)"; exit 2; }
for tool in rsync dbus-daemon mkfs.ext4 losetup; do
  command -v $tool > /dev/null || { echo "missing $tool"; exit 2; }
done
NSS=$(ls /usr/lib/*/libnss_wrapper.so 2>/dev/null | head -1)
[[ -n $NSS ]] || { echo "missing nss_wrapper (apt-get install libnss-wrapper)"; exit 2; }
BUILD=$(cd "$BUILD" && pwd)
for program in tests/skerrow_make_home bench/skerrow_bench_setup_backup bench/skerrow_bench_walk_floor bin/skerrowd; do
  [[ -x $BUILD/$program ]] || { echo "missing $BUILD/$program (build first)"; exit 2; }
done

W=$(mktemp -d /var/tmp/skerrow-bench-XXXXXX)
chmod 755 "$W"
LOOP="" ENGINE="" BUS=""
cleanup() {
  [[ -n $ENGINE ]] && kill "$ENGINE" 2> /dev/null && wait "$ENGINE" 2> /dev/null || true
  [[ -n $BUS ]] && kill "$BUS" 2> /dev/null || true
  mountpoint -q "$W/disk" && umount "$W/disk"
  [[ -n $LOOP ]] && losetup -d "$LOOP" 2> /dev/null || true
  if [[ $KEEP == 1 ]]; then echo "kept $W"; else rm -rf "$W"; fi
}
trap cleanup EXIT

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

mkdir -p "$W/home"
if [[ -n $GIVEN_HOME ]]; then
  echo "== home: $GIVEN_HOME"
  HOME_DIR=$(cd "$GIVEN_HOME" && pwd)
else
  echo "== home: $FILES files, $BYTES, seed $SEED"
  HOME_DIR=$W/home/bench
  "$BUILD/tests/skerrow_make_home" -q -n "$FILES" -b "$BYTES" -s "$SEED" "$HOME_DIR"
fi
chown -R -h 1600:1600 "$HOME_DIR"
du -sh --apparent-size "$HOME_DIR" | sed 's/^/   /'

echo "== disk: ext4 on a loop device"
SIZE_KB=$(du -sk --apparent-size "$HOME_DIR" | cut -f1)
truncate -s $((SIZE_KB * 4 + 1048576))K "$W/disk.img"
mkfs.ext4 -q -L Backup "$W/disk.img"
LOOP=$(losetup -f --show "$W/disk.img")
mkdir -p "$W/disk"
mount "$LOOP" "$W/disk"

# Warm the caches: every run below reads a home folder that is in memory.
tar -cf - -C "$HOME_DIR" . > /dev/null

echo "== cp -a + sync"
t0=$(now); cp -a "$HOME_DIR" "$W/disk/cp"; sync -f "$W/disk"; t1=$(now)
CP=$(elapsed "$t0" "$t1")
rm -rf "$W/disk/cp"; sync

echo "== rsync -a, no change"
rsync -a "$HOME_DIR/" "$W/disk/rsync/"; sync
t0=$(now); rsync -a "$HOME_DIR/" "$W/disk/rsync/"; t1=$(now)
RSYNC=$(elapsed "$t0" "$t1")
rm -rf "$W/disk/rsync"; sync

echo "== skerrowd"
printf 'root:x:0:0:root:/root:/bin/sh\nbench:x:1600:1600:Bench:%s:/bin/sh\n' "$HOME_DIR" > "$W/passwd"
printf 'root:x:0:\nbench:x:1600:\n' > "$W/group"
mkdir -p "$W/engine"
STORE="$W/engine/Library/Application Support/Vornhalden"
BENCH_UID=BENCH-0000-4000-8000-000000000001
"$BUILD/bench/skerrow_bench_setup_backup" bench "$HOME_DIR" "$W/disk" "$STORE" $BENCH_UID
BUS_OUT=$(dbus-daemon --session --fork --print-address=1 --print-pid=1 --nopidfile)
export DBUS_SESSION_BUS_ADDRESS=$(echo "$BUS_OUT" | sed -n 1p)
BUS=$(echo "$BUS_OUT" | sed -n 2p)
LOG=$W/engine.log
( env HOME="$W/engine" SKERROW_LOG_STDERR=1 LD_PRELOAD="$NSS" NSS_WRAPPER_PASSWD="$W/passwd" \
      NSS_WRAPPER_GROUP="$W/group" "$BUILD/bin/skerrowd" -userApp -noSchedule -noRealtime 2>&1 |
    while IFS= read -r line; do printf '%s %s\n' "$(date +%s.%N)" "$line"; done > "$LOG" ) &
sleep 0.5
ENGINE=$(pgrep -n -f "$BUILD/bin/skerrowd -userApp" || true)
[[ -n $ENGINE ]] || { echo "skerrowd did not start"; cat "$LOG"; exit 1; }

saves() { grep -c "Server did save to permanent store: 1" "$LOG" || true; }
for _ in $(seq 1 3600); do [[ $(saves) -ge 2 ]] && break; sleep 0.5; done
[[ $(saves) -ge 2 ]] || { echo "the backups did not finish"; tail -20 "$LOG"; exit 1; }
RSS_KB=$(awk '/VmHWM/ {print $2}' "/proc/$ENGINE/status")

starts=($(awk '/Starting UNSCHEDULED backup/ {print $1}' "$LOG"))
ends=($(awk '/Server did save to permanent store: 1/ {print $1}' "$LOG"))
FIRST=$(elapsed "${starts[0]}" "${ends[0]}")
# The next pass is the first one started after the first backup was saved (a
# tick that came while the first backup still ran only joined it).
again_start=$(awk -v t="${ends[0]}" '/Starting UNSCHEDULED backup/ && $1 > t {print $1; exit}' "$LOG")
AGAIN=$(elapsed "$again_start" "${ends[1]}")
# The kernel calls alone that a no-change pass makes, timed on the same trees.
FLOOR=$("$BUILD/bench/skerrow_bench_walk_floor" "$HOME_DIR" "$W/disk/qs skerrow.skstor/$BENCH_UID" 3)
STORED=$(find "$W/disk/qs skerrow.skstor" -type f -name '*@0*' | wc -l)

echo
printf "%-44s %8.2f s\n" "cp -a + sync -f" "$CP"
printf '%-44s %8.2f s   (%sx cp)\n' "skerrowd first backup (incl. syncfs)" "$FIRST" "$(ratio "$FIRST" "$CP")"
printf '%-44s %8.2f s\n' "rsync -a, nothing to copy" "$RSYNC"
printf '%-44s %8.2f s   (%sx rsync)\n' "skerrowd backup, nothing to copy" "$AGAIN" "$(ratio "$AGAIN" "$RSYNC")"
printf '%-44s %8.1f MiB\n' "skerrowd peak RSS" "$(ratio "$RSS_KB" 1024)"
printf '%-44s %8d\n' "versioned copies on the disk" "$STORED"
echo
echo "$FLOOR"
