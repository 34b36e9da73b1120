#!/usr/bin/env bash
# Continuous backup: how soon a saved file is stored, with and without a
# busy file system around the home, and what the busy file system costs
# the engine.  Everything is measured in one run, on one synthetic home.
#
#   sudo bench/realtime_latency.sh [-n FILES] [-b BYTES] [-s SEED] [-r RUNS] [-c SAVES] [-B BUILD_DIR] [-M MAKE_HOME] [-k]
#
# Defaults: 100000 files, 1.5G, seed 1, 3 runs of 1000 saves, build dir
# "build".  -M names the home generator (default: the project's
# skerrow_make_home; /work/shared/bench/make-home.sh takes the same options).
# Needs root, two loop devices, dbus-daemon and nss_wrapper.
#
# Set-up: the home on a loop-mounted ext4 file system ("homes"), the backup
# on a second loop-mounted ext4 disk; skerrowd -userApp with continuous
# backup on and its real schedule; its first backup of the whole home is
# awaited (the first timer tick starts it).  Then, each run:
#   quiet   1000 saves of 64 KiB files at 10 a second in 100 folders of the
#           home: change-to-stored latency (close of the save to the rename
#           of the stored version into place, seen with inotify)
#   churn   the same while another process creates and deletes 100,000 files
#           outside the home on the homes file system, spread over the saves
#   cpu     that process alone, at full speed, creating and deleting 100,000
#           files: skerrowd's CPU time during it against the process's own
# and the floor: the time to store the same 64 KiB file by hand (write,
# fsync, rename) on the backup disk.  Medians over the runs are printed last.
set -euo pipefail

FILES=100000 BYTES=1.5G SEED=1 RUNS=3 SAVES=1000 BUILD=build KEEP=0 MAKE_HOME=""
while getopts "n:b:s:r:c:B:M:k" opt; do
  case $opt in
    n) FILES=$OPTARG ;; b) BYTES=$OPTARG ;; s) SEED=$OPTARG ;; r) RUNS=$OPTARG ;; c) SAVES=$OPTARG ;;
    B) BUILD=$OPTARG ;; M) MAKE_HOME=$OPTARG ;; k) KEEP=1 ;;
    *) sed -n '2,28p' "$0"; exit 2 ;;
  esac
done
[[ $(id -u) == 0 ]] || { echo "run as root (loop devices, mounts, fanotify)"; exit 2; }
NSS=$(ls /usr/lib/*/libnss_wrapper.so 2>/dev/null | head -1)
[[ -n $NSS ]] || { echo "missing nss_wrapper (apt-get install libnss-wrapper)"; exit 2; }
BUILD=$(cd "$BUILD" && pwd)
for program in tests/skerrow_make_home bench/skerrow_bench_setup_backup bench/skerrow_bench_realtime bin/skerrowd; do
  [[ -x $BUILD/$program ]] || { echo "missing $BUILD/$program (build first)"; exit 2; }
done
MAKE_HOME=${MAKE_HOME:-$BUILD/tests/skerrow_make_home}

W=$(mktemp -d /var/tmp/skerrow-rt-XXXXXX)
chmod 755 "$W"
LOOPS=() ENGINE="" BUS=""
cleanup() {
  [[ -n $ENGINE ]] && kill "$ENGINE" 2> /dev/null && wait "$ENGINE" 2> /dev/null || true
  [[ -n $BUS ]] && kill "$BUS" 2> /dev/null || true
  for m in "$W/disk" "$W/homes"; do mountpoint -q "$m" && umount "$m"; done
  for l in "${LOOPS[@]}"; do losetup -d "$l" 2> /dev/null || true; done
  if [[ $KEEP == 1 ]]; then echo "kept $W"; else rm -rf "$W"; fi
}
trap cleanup EXIT

disk() {  # disk NAME SIZE: an ext4 image mounted on $W/NAME
  truncate -s "$2" "$W/$1.img"
  mkfs.ext4 -q -L "$1" "$W/$1.img"
  local loop
  loop=$(losetup -f --show "$W/$1.img")
  LOOPS+=("$loop")
  mkdir -p "$W/$1"
  mount "$loop" "$W/$1"
}

echo "== homes and backup disks (ext4 on loop devices)"
disk homes 6G
disk disk 8G
HOME_DIR=$W/homes/bench
echo "== home: $FILES files, $BYTES, seed $SEED ($MAKE_HOME)"
"$MAKE_HOME" -q -n "$FILES" -b "$BYTES" -s "$SEED" "$HOME_DIR"
chown -R -h 1600:1600 "$HOME_DIR"

printf 'root:x:0:0:root:/root:/bin/sh\nbench:x:1600:1600:Bench:%s:/bin/sh\n' "$HOME_DIR" > "$W/passwd"
printf 'root:x:0:\nbench:x:1600:\n' > "$W/group"
mkdir -p "$W/engine"
STORE="$W/engine/Library/Application Support/Vornhalden"
BENCH_UID=BENCH-0000-4000-8000-000000000001
BACKUP="$W/disk/qs skerrow.skstor/$BENCH_UID"
"$BUILD/bench/skerrow_bench_setup_backup" bench "$HOME_DIR" "$W/disk" "$STORE" $BENCH_UID
BUS_OUT=$(dbus-daemon --session --fork --print-address=1 --print-pid=1 --nopidfile)
export DBUS_SESSION_BUS_ADDRESS=$(echo "$BUS_OUT" | sed -n 1p)
BUS=$(echo "$BUS_OUT" | sed -n 2p)
LOG=$W/engine.log
env HOME="$W/engine" SKERROW_LOG_STDERR=1 LD_PRELOAD="$NSS" NSS_WRAPPER_PASSWD="$W/passwd" \
    NSS_WRAPPER_GROUP="$W/group" "$BUILD/bin/skerrowd" -userApp > "$LOG" 2>&1 &
ENGINE=$!

echo "== the first backup (started by the first timer tick)"
for _ in $(seq 1 3600); do grep -q "Server did save to permanent store: 1" "$LOG" && break; sleep 1; done
grep -q "Server did save to permanent store: 1" "$LOG" || { echo "the first backup did not finish"; tail -20 "$LOG"; exit 1; }
grep -q "gamuliob ready" "$LOG" || { echo "the watcher did not start"; tail -20 "$LOG"; exit 1; }

cpu() { awk '{print $14 + $15}' "/proc/$ENGINE/stat"; }
TICK=$(getconf CLK_TCK)
declare -a Q50 Q99 C50 C99 RATIO_PACED RATIO_FAST
for run in $(seq 1 "$RUNS"); do
  echo "== run $run: quiet"
  q=$("$BUILD/bench/skerrow_bench_realtime" saves "$HOME_DIR" "$BACKUP" "$SAVES" 10 65536)
  echo "   $q"
  echo "== run $run: with churn outside the home"
  e0=$(cpu)
  "$BUILD/bench/skerrow_bench_realtime" churn "$W/homes/build-$run" 100000 $((SAVES / 10)) > "$W/churn.out" &
  CHURN=$!
  c=$("$BUILD/bench/skerrow_bench_realtime" saves "$HOME_DIR" "$BACKUP" "$SAVES" 10 65536)
  wait $CHURN
  e1=$(cpu)
  echo "   $c"
  echo "   $(cat "$W/churn.out") engine_cpu_s=$(awk -v a="$e0" -v b="$e1" -v t="$TICK" 'BEGIN{printf "%.3f", (b-a)/t}') (saves included)"
  paced=$(awk -v a="$e0" -v b="$e1" -v t="$TICK" -v c="$(sed 's/.*churn_cpu_s=//' "$W/churn.out")" 'BEGIN{printf "%.4f", (b-a)/t/c}')
  echo "== run $run: churn alone, full speed"
  e0=$(cpu)
  "$BUILD/bench/skerrow_bench_realtime" churn "$W/homes/fast-$run" 100000 0 > "$W/churn.out"
  e1=$(cpu)
  fast_cpu=$(sed 's/.*churn_cpu_s=//' "$W/churn.out")
  echo "   $(cat "$W/churn.out") engine_cpu_s=$(awk -v a="$e0" -v b="$e1" -v t="$TICK" 'BEGIN{printf "%.3f", (b-a)/t}')"
  fast=$(awk -v a="$e0" -v b="$e1" -v t="$TICK" -v c="$fast_cpu" 'BEGIN{printf "%.4f", (b-a)/t/c}')
  field() { echo "$1" | tr ' ' '\n' | sed -n "s/^$2=//p"; }
  Q50+=("$(field "$q" p50_ms)") Q99+=("$(field "$q" p99_ms)") C50+=("$(field "$c" p50_ms)") C99+=("$(field "$c" p99_ms)")
  RATIO_PACED+=("$paced") RATIO_FAST+=("$fast")
  FLOOR="$(echo "$q" | sed -n 2p)"
done

median() { printf '%s\n' "$@" | sort -g | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
echo
echo "Medians of $RUNS runs ($SAVES saves of 64 KiB at 10/s each; home of $FILES files, $BYTES):"
printf '%-58s p50 %7.1f ms   p99 %7.1f ms\n' "change to stored, quiet" "$(median "${Q50[@]}")" "$(median "${Q99[@]}")"
printf '%-58s p50 %7.1f ms   p99 %7.1f ms\n' "change to stored, 100,000 files churned outside the home" "$(median "${C50[@]}")" "$(median "${C99[@]}")"
printf '%-58s %s\n' "storing the file by hand (write, fsync, rename), last run" "$FLOOR"
printf '%-58s %6.1f %%\n' "engine CPU / churn CPU, churn spread over the saves" "$(awk -v r="$(median "${RATIO_PACED[@]}")" 'BEGIN{print r*100}')"
printf '%-58s %6.1f %%\n' "engine CPU / churn CPU, churn alone at full speed" "$(awk -v r="$(median "${RATIO_FAST[@]}")" 'BEGIN{print r*100}')"
echo "per run: quiet p99 ${Q99[*]} | churn p99 ${C99[*]} | cpu ratios paced ${RATIO_PACED[*]} fast ${RATIO_FAST[*]}"
