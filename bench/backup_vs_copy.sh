#!/usr/bin/env bash
# Side-by-side timing of a backup by skerrowd against cp and rsync, on the
# same synthetic home folder and the same loop-mounted ext4 disk.
#
#   sudo bench/backup_vs_copy.sh [-n FILES] [-b BYTES] [-s SEED] [-r RUNS] [-B BUILD_DIR] [-H HOME] [-k] [-w]
#
# Defaults: 100000 files, 1.5G, seed 1, 3 runs, build dir "build".  -H uses a home
# folder made earlier by skerrow_make_home (its owner becomes uid 1600) instead
# of making one.  -k keeps the work folder.  Needs root, a loop device, rsync, dbus-daemon and nss_wrapper
# (scripts/install-deps.sh installs all but rsync: apt-get install rsync).
#
# What is measured, each with warm caches (the home folder is read once
# before anything is timed):
#   cp      cp -a HOME DISK/cp, then sync -f DISK (the same syncfs the engine makes)
#   rsync   rsync -a HOME/ DISK/rsync/ a first time (not timed), then RUNS
#           timed no-change runs (median)
#   first   skerrowd's first full backup: from "Starting UNSCHEDULED backup"
#           to "Server did save to permanent store: 1" (source count,
#           backup-folder count, dry run, copy, and the final syncfs)
#   again   the next backup of the same engine, which finds nothing to copy,
#           and the one after it (the engine has walked the disk once)
#   cold    the engine is stopped and started again RUNS times; each time
#           its first backup, which finds nothing to copy (median)
#   rss     skerrowd's peak resident set (VmHWM) after the first backup and
#           its passes, and that of a restarted engine after its cold pass;
#           its resident set (VmRSS) two seconds after that pass, or just
#           before the next pass if that begins sooner
#   floor   the kernel calls alone of a no-change pass (stat of every item
#           on both sides, the creation date of every copy), for scale
#   warm    (-w) the engine with continuous backup, whose passes read again
#           only what the watcher saw change, and nothing at all when
#           nothing changed since a pass that found nothing to do: RUNS
#           no-change passes after the first (median), then RUNS times 100
#           files given a new modification time (which continuous backup
#           does not copy) and the first pass to start after that, which
#           copies them, against rsync -a on the same change; the engine's
#           peak and resident set after these passes
set -euo pipefail
# Times are read from bash's clock ($EPOCHREALTIME), written with a point.
export LC_NUMERIC=C

FILES=100000 BYTES=1.5G SEED=1 RUNS=3 BUILD=build KEEP=0 GIVEN_HOME="" WARM=0
while getopts "n:b:s:r:B:H:kw" opt; do
  case $opt in
    n) FILES=$OPTARG ;; b) BYTES=$OPTARG ;; s) SEED=$OPTARG ;; r) RUNS=$OPTARG ;; B) BUILD=$OPTARG ;; H) GIVEN_HOME=$OPTARG ;; k) KEEP=1 ;;
    w) WARM=1 ;;
    *) sed -n '2,37p' "$0"; exit 2 ;;
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

# Wall-clock seconds, read without starting a program (bash 5), so that
# a stamp is not late by the time a fork takes.
now() { echo "$EPOCHREALTIME"; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

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
# Room for the items of three copies of the home at once (the engine's, cp's
# or rsync's, and with -w a second rsync copy): ext4's default of an inode
# per 16 KiB runs out before the blocks do on a home of many small files.
ITEMS=$(find "$HOME_DIR" | wc -l)
mkfs.ext4 -q -L Backup -N $((ITEMS * 4 + 100000)) "$W/disk.img"
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
RSYNCS=()
for _ in $(seq 1 "$RUNS"); do
  t0=$(now); rsync -a "$HOME_DIR/" "$W/disk/rsync/"; t1=$(now)
  RSYNCS+=("$(elapsed "$t0" "$t1")")
done
RSYNC=$(median "${RSYNCS[@]}")
echo "   ${RSYNCS[*]} s"
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
startEngine() {  # startEngine LOG [realtime]: skerrowd -userApp on the bench's store, its log lines stamped
  local realtime=-noRealtime
  [[ ${2:-} == realtime ]] && realtime=""
  ( env HOME="$W/engine" SKERROW_LOG_STDERR=1 LD_PRELOAD="$NSS" NSS_WRAPPER_PASSWD="$W/passwd" \
        NSS_WRAPPER_GROUP="$W/group" "$BUILD/bin/skerrowd" -userApp -noSchedule $realtime 2>&1 |
      while IFS= read -r line; do printf '%s %s\n' "$EPOCHREALTIME" "$line"; done > "$1" ) &
  sleep 0.5
  ENGINE=$(pgrep -n -f "$BUILD/bin/skerrowd -userApp" || true)
  [[ -n $ENGINE ]] || { echo "skerrowd did not start"; cat "$1"; exit 1; }
}
stopEngine() {
  kill "$ENGINE"; for _ in $(seq 1 100); do kill -0 "$ENGINE" 2> /dev/null || break; sleep 0.1; done
  ENGINE=""
}
saves() { grep -c "Server did save to permanent store: 1" "$1" || true; }
awaitSaves() {  # awaitSaves LOG N
  for _ in $(seq 1 3600); do [[ $(saves "$1") -ge $2 ]] && break; sleep 0.2; done
  [[ $(saves "$1") -ge $2 ]] || { echo "the backups did not finish"; tail -20 "$1"; exit 1; }
}
# lineOf LOG TEXT: the number of the last line of LOG holding TEXT (0: none).
lineOf() { { grep -n "$2" "$1" || echo 0; } | tail -1 | cut -d: -f1; }
# awaitIdle LOG: until no pass is under way, the last one started having
# logged its save (at most 10 minutes: a pass whose save failed never logs
# a successful one).
awaitIdle() {
  for _ in $(seq 1 12000); do
    (( $(lineOf "$1" "Starting UNSCHEDULED backup") > $(lineOf "$1" "Server did save to permanent store") )) || return 0
    sleep 0.05
  done
}
# passAfter LOG T: the seconds from the start of the first pass that started
# after T (an $EPOCHREALTIME) to its save; nothing until it has saved.
passAfter() {
  awk -v t="$2" '
    /Starting UNSCHEDULED backup/ { if (start == "" && $1 > t) start = $1 }
    /Server did save to permanent store: 1/ { if (start != "" && $1 >= start) { printf "%.3f", $1 - start; exit } }
  ' "$1"
}
# residentBetweenPasses LOG: the engine's VmRSS (kB) between two passes: 2 s
# after the last one ended or, when the next begins sooner, the last reading
# before it began.  The schedule starts a pass every 10 s and a large home's
# pass takes most of that; a reading taken while the next pass builds its
# trees would count them.  A pass under way is waited for first (up to 10
# minutes: a pass whose save failed never logs a successful one).
residentBetweenPasses() {
  local log=$1 starts rss reading ended
  awaitIdle "$log"
  starts=$(grep -c "Starting UNSCHEDULED backup" "$log" || true)
  ended=$EPOCHREALTIME
  rss=$(awk '/VmRSS/ {print $2}' "/proc/$ENGINE/status")
  while awk -v a="$ended" -v b="$EPOCHREALTIME" 'BEGIN { exit !(b - a < 2) }'; do
    sleep 0.05
    reading=$(awk '/VmRSS/ {print $2}' "/proc/$ENGINE/status")
    [[ $(grep -c "Starting UNSCHEDULED backup" "$log" || true) == "$starts" ]] || break
    rss=$reading
  done
  echo "$rss"
}
# passTime LOG K: the K-th pass (from 1) that started after the (K-1)-th save
# (a tick that came while a backup still ran only joined it).
passTime() {
  awk -v k="$2" '
    /Starting UNSCHEDULED backup/ { if (start == "" && (k == 1 || saved >= k - 1)) start = $1 }
    /Server did save to permanent store: 1/ { saved++; if (saved == k && start != "") { printf "%.3f", $1 - start; exit } }
  ' "$1"
}

startEngine "$LOG"
awaitSaves "$LOG" 3
RSS_KB=$(awk '/VmHWM/ {print $2}' "/proc/$ENGINE/status")
FIRST=$(passTime "$LOG" 1)
AGAIN=$(passTime "$LOG" 2)
AGAIN2=$(passTime "$LOG" 3)
stopEngine
COLDS=() COLD_HWM=() COLD_RSS=()
for r in $(seq 1 "$RUNS"); do
  startEngine "$W/engine-cold$r.log"
  awaitSaves "$W/engine-cold$r.log" 1
  COLD_HWM+=("$(awk '/VmHWM/ {print $2}' "/proc/$ENGINE/status")")
  COLD_RSS+=("$(residentBetweenPasses "$W/engine-cold$r.log")")
  COLDS+=("$(passTime "$W/engine-cold$r.log" 1)")
  stopEngine
done
COLD=$(median "${COLDS[@]}")
# The kernel calls alone that a no-change pass makes, timed on the same trees.
FLOOR=$("$BUILD/bench/skerrow_bench_walk_floor" "$HOME_DIR" "$W/disk/qs skerrow.skstor/$BENCH_UID" 3)
STORED=$(find "$W/disk/qs skerrow.skstor" -type f -name '*@0*' | wc -l)

if [[ $WARM == 1 ]]; then
  echo "== skerrowd with continuous backup: warm passes"
  # rsync's own copy, for the same change as the engine's below.
  rsync -a "$HOME_DIR/" "$W/disk/rsync/"; sync
  WLOG=$W/engine-warm.log
  # The first pass after a start reads everything (and keeps what it read);
  # the ones after it are warm.
  startEngine "$WLOG" realtime
  awaitSaves "$WLOG" $((RUNS + 1))
  WARMS=()
  for k in $(seq 2 $((RUNS + 1))); do WARMS+=("$(passTime "$WLOG" "$k")"); done
  WARM_PASS=$(median "${WARMS[@]}")
  CHANGED=() RSYNC_CHANGED=() COPIED=()
  mapfile -t ALL_FILES < <(find "$HOME_DIR" -type f | sort)
  for r in $(seq 1 "$RUNS"); do
    before=$(find "$W/disk/qs skerrow.skstor" -type f | wc -l)
    # 100 files, given in one touch a modification time no earlier run gave
    # them (a time a stored copy already has would be no change; continuous
    # backup copies closed writes, not this: the pass does the copying).
    stamp=$(( $(date +%s) - 86400 * 365 + r * 1000 ))
    picked=()
    for i in $(seq 0 99); do picked+=("${ALL_FILES[$(( (r * 7919 + i * 104729) % ${#ALL_FILES[@]} ))]}"); done
    # No pass under way while the files change, and the pass measured is the
    # first to start after the change: it sees all of it.  (A pass that
    # starts before, with nothing changed, stands on the last one in a few
    # milliseconds; measuring it instead would be wrong.)
    awaitIdle "$WLOG"
    touch -m -d "@$stamp" "${picked[@]}"
    changed=$EPOCHREALTIME
    took=""
    for _ in $(seq 1 3600); do took=$(passAfter "$WLOG" "$changed"); [[ -n $took ]] && break; sleep 0.2; done
    [[ -n $took ]] || { echo "no pass after the change"; tail -20 "$WLOG"; exit 1; }
    CHANGED+=("$took")
    COPIED+=($(( $(find "$W/disk/qs skerrow.skstor" -type f | wc -l) - before )))
    t0=$(now); rsync -a "$HOME_DIR/" "$W/disk/rsync/"; t1=$(now)
    RSYNC_CHANGED+=("$(elapsed "$t0" "$t1")")
  done
  WARM_HWM=$(awk '/VmHWM/ {print $2}' "/proc/$ENGINE/status")
  WARM_RSS=$(residentBetweenPasses "$WLOG")
  WARM_READ=$(grep -c "Walked .* warm" "$WLOG" || true)
  STOOD=$(grep -c "Nothing changed in" "$WLOG" || true)
  stopEngine
  rm -rf "$W/disk/rsync"
fi

echo
printf "%-44s %8.2f s\n" "cp -a + sync -f" "$CP"
printf '%-44s %8.2f s   (%sx cp)\n' "skerrowd first backup (incl. syncfs)" "$FIRST" "$(ratio "$FIRST" "$CP")"
printf '%-44s %8.2f s   (median of %s)\n' "rsync -a, nothing to copy" "$RSYNC" "$RUNS"
printf '%-44s %8.2f s   (%sx rsync)\n' "skerrowd backup, nothing to copy" "$AGAIN" "$(ratio "$AGAIN" "$RSYNC")"
printf '%-44s %8.2f s   (%sx rsync)\n' "skerrowd the backup after that" "$AGAIN2" "$(ratio "$AGAIN2" "$RSYNC")"
printf '%-44s %8.2f s   (%sx rsync; runs: %s)\n' "skerrowd cold pass (first after a start)" "$COLD" \
  "$(ratio "$COLD" "$RSYNC")" "${COLDS[*]}"
printf '%-44s %8.1f MiB\n' "skerrowd peak RSS, first backup and 2 passes" "$(ratio "$RSS_KB" 1024)"
printf '%-44s %8.1f MiB\n' "skerrowd peak RSS, cold pass (median)" "$(ratio "$(median "${COLD_HWM[@]}")" 1024)"
printf '%-44s %8.1f MiB\n' "skerrowd resident after the cold pass" "$(ratio "$(median "${COLD_RSS[@]}")" 1024)"
printf '%-44s %8d\n' "versioned copies on the disk" "$STORED"
if [[ $WARM == 1 ]]; then
  printf '%-44s %8.3f s   (%sx rsync; runs: %s)\n' "skerrowd warm pass, nothing to copy" "$WARM_PASS" \
    "$(ratio "$WARM_PASS" "$RSYNC")" "${WARMS[*]}"
  CHANGED_PASS=$(median "${CHANGED[@]}") RSYNC_CHANGE=$(median "${RSYNC_CHANGED[@]}")
  printf '%-44s %8.3f s   (runs: %s; copies made: %s)\n' "skerrowd warm pass after 100 files changed" \
    "$CHANGED_PASS" "${CHANGED[*]}" "${COPIED[*]}"
  printf '%-44s %8.3f s   (runs: %s)\n' "rsync -a after the same change" "$RSYNC_CHANGE" "${RSYNC_CHANGED[*]}"
  printf '%-44s %8s\n' "  ratio" "$(ratio "$CHANGED_PASS" "$RSYNC_CHANGE")x"
  printf '%-44s %8.1f MiB\n' "skerrowd peak RSS, warm passes" "$(ratio "$WARM_HWM" 1024)"
  printf '%-44s %8.1f MiB\n' "skerrowd resident after them" "$(ratio "$WARM_RSS" 1024)"
  printf '%-44s %8d\n' "walks that were warm (log lines)" "$WARM_READ"
  printf '%-44s %8d\n' "passes that walked nothing (log lines)" "$STOOD"
fi
echo
echo "$FLOOR"
