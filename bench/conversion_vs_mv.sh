#!/usr/bin/env bash
# Side-by-side timing of the engine's conversion of an older product's
# backups against a plain find + mv script doing the same renames, on copies
# of the same loop-mounted ext4 disk.
#
#   sudo bench/conversion_vs_mv.sh [-v VERSIONS] [-r RUNS] [-s SEED] [-B BUILD_DIR] [-k]
#
# Defaults: about 100000 versions (2 users, files with 1 to 5 versions of up
# to 2 KiB each), 3 runs of each, seed 1, build dir "build".  -k keeps the
# work folder.  Needs root and a loop device.
#
# The legacy disk is made once (skerrow_make_legacy on a fresh ext4 image);
# every run works on a fresh copy of that image, mounted on its own loop
# device, so both sides start from the same bytes and a cold mount.
#
#   engine  skerrow_convert_volume: the conversion skerrowd runs when the disk
#           is mounted (examination with every per-file property list read,
#           reassignment, the state file saved twice, each version renamed
#           to its new name and its date set, the information lists, the
#           syncfs before the last state, clean-up); the time of the run
#           itself as it reports it, and of the whole process
#   mv      a plain script: find lists the legacy versions, awk works out
#           each version's new name (the same order: stamps, then the
#           unstamped copy), mkdir -p makes the target folders, and one mv
#           per version renames it; then sync -f
#
# Medians of the runs are printed with the ratio engine / mv.
set -euo pipefail

VERSIONS=100000 RUNS=3 SEED=1 BUILD=build KEEP=0
while getopts "v:r:s:B:k" opt; do
  case $opt in
    v) VERSIONS=$OPTARG ;; r) RUNS=$OPTARG ;; s) SEED=$OPTARG ;; B) BUILD=$OPTARG ;; k) KEEP=1 ;;
    *) sed -n '2,30p' "$0"; exit 2 ;;
  esac
done
[[ $(id -u) == 0 ]] || { echo "run as root (loop devices, mounts)"; exit 2; }
# Everything runs in a mount namespace of its own: should the script be
# killed outright, its mounts go with it instead of staying on the machine.
if [[ -z ${SKERROW_CONVBENCH_NAMESPACE:-} ]] && command -v unshare > /dev/null; then
  export SKERROW_CONVBENCH_NAMESPACE=1
  exec unshare --mount --propagation private "$0" "$@"
fi
for tool in mkfs.ext4 losetup awk; do command -v $tool > /dev/null || { echo "missing $tool"; exit 2; }; done
BUILD=$(cd "$BUILD" && pwd)
for program in tests/skerrow_make_legacy tests/skerrow_convert_volume; do
  [[ -x $BUILD/$program ]] || { echo "missing $BUILD/$program (build first)"; exit 2; }
done

# Work folders of earlier runs that were killed outright (their process is
# gone): their loop devices are detached and the folders removed.
for stale in /var/tmp/skerrow-convbench-*; do
  [[ -f $stale/pid ]] || continue
  kill -0 "$(cat "$stale/pid")" 2> /dev/null && continue
  mountpoint -q "$stale/disk" && umount -l "$stale/disk"
  losetup -j "$stale/run.img" -O NAME -n 2> /dev/null | xargs -r -n1 losetup -d 2> /dev/null || true
  losetup -j "$stale/legacy.img" -O NAME -n 2> /dev/null | xargs -r -n1 losetup -d 2> /dev/null || true
  rm -rf "$stale"
done

W=$(mktemp -d /var/tmp/skerrow-convbench-XXXXXX)
echo $$ > "$W/pid"
LOOP=""  # a loop device attached but not yet mounted
cleanup() {
  set +e
  if mountpoint -q "$W/disk"; then umount "$W/disk" 2> /dev/null || umount -l "$W/disk"; fi
  [[ -n $LOOP ]] && losetup -d "$LOOP" 2> /dev/null
  if [[ $KEEP == 1 ]]; then rm -f "$W/pid"; echo "kept $W"; else rm -rf "$W"; fi
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%.3f\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# The loop device is released as soon as it is attached: it stays while the
# disk is mounted and detaches itself with the last unmount, however that comes.
mount_image() {
  LOOP=$(losetup --find --show "$1")
  mkdir -p "$W/disk"
  mount -t ext4 "$LOOP" "$W/disk"
  losetup -d "$LOOP"
  LOOP=""
}
unmount_image() {
  umount "$W/disk"
}

# The legacy disk: three versions per file on average.
FILES=$(( (VERSIONS + 5) / 6 ))
truncate -s 4G "$W/legacy.img"
mkfs.ext4 -q -F -N 600000 -L OldBackups "$W/legacy.img"
mount_image "$W/legacy.img"
"$BUILD/tests/skerrow_make_legacy" --user ann=/home/ann --user bob=/home/bob --files "$FILES" --max-versions 5 \
  --bytes 2048 --seed "$SEED" --manifest "$W/manifest.tsv" "$W/disk"
MADE=$(grep -c '^version' "$W/manifest.tsv")
COMPUTER=$(awk -F'\t' 'NR == 1 { print $2; exit }' "$W/manifest.tsv")
unmount_image
echo "legacy disk: $MADE versions of $((FILES * 2)) files, computer \"$COMPUTER\""

# The plain script: find, awk for the new names, mkdir -p, one mv per version.
cat > "$W/find-mv.sh" << 'SCRIPT'
#!/usr/bin/env bash
set -euo pipefail
disk=$1
legacy="$disk/QS Tidevault"
target="$disk/converted"
find "$legacy" -type f ! -name '.Vessa *' ! -name '.VessaBackupPlanSettings.plist' -printf '%h\t%f\n' |
  awk -F'\t' '{
    name = $2; body = name; ext = ""
    dot = 0; for (i = length(name); i > 0; i--) if (substr(name, i, 1) == ".") { dot = i; break }
    if (dot > 0) { body = substr(name, 1, dot - 1); ext = substr(name, dot) }
    stamp = "~"; plain = name
    if (length(body) >= 20 && substr(body, length(body) - 19) ~ /^@[0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]T[0-9][0-9];[0-9][0-9];[0-9][0-9]$/ && (length(body) > 20 || ext != "")) {
      stamp = substr(body, length(body) - 19); plain = substr(body, 1, length(body) - 20) ext
    }
    printf "%s\t%s\t%s\t%s\n", $1, plain, stamp, name
  }' |
  LC_ALL=C sort -t$'\t' -k1,1 -k2,2 -k3,3 |
  awk -F'\t' -v legacy="$legacy" -v target="$target" '{
    key = $1 "\t" $2
    if (key != last) { index_ = 0; last = key } else index_++
    plain = $2; pbody = plain; pext = ""
    dot = 0; for (i = length(plain); i > 0; i--) if (substr(plain, i, 1) == ".") { dot = i; break }
    if (dot > 0) { pbody = substr(plain, 1, dot - 1); pext = substr(plain, dot) }
    rest = substr($1, length(legacy) + 2)
    n = split(rest, part, "/")
    folder = target "/" part[2]
    for (i = 4; i <= n; i++) folder = folder "/" part[i]
    printf "%s\t%s/%s\t%s\n", $1 "/" $4, folder, pbody "@" index_ pext, folder
  }' > "$disk/../renames.tsv"
cut -f3 "$disk/../renames.tsv" | sort -u | while IFS= read -r folder; do mkdir -p -- "$folder"; done
while IFS=$'\t' read -r from to folder; do mv -- "$from" "$to"; done < "$disk/../renames.tsv"
sync -f "$disk"
SCRIPT
chmod +x "$W/find-mv.sh"

ENGINE_RUN=() ENGINE_PROCESS=() MV=()
for run in $(seq 1 "$RUNS"); do
  cp --sparse=always "$W/legacy.img" "$W/run.img"
  mount_image "$W/run.img"
  start=$(now)
  out=$("$BUILD/tests/skerrow_convert_volume" --computer "$COMPUTER" "$W/disk")
  end=$(now)
  seconds=$(sed -n 's/^SECONDS //p' <<< "$out")
  done_line=$(grep '^DONE' <<< "$out")
  moved=$(find "$W/disk/qs skerrow.skstor" -type f ! -name '.com.qsc.backupinfo' ! -name '.vessaToQSConversion*' | wc -l)
  [[ $moved == "$MADE" ]] || { echo "engine run $run: $moved of $MADE versions converted ($done_line)"; exit 1; }
  ENGINE_RUN+=("$seconds") ENGINE_PROCESS+=("$(elapsed "$start" "$end")")
  echo "run $run engine: $seconds s (process $(elapsed "$start" "$end") s), $moved versions"
  unmount_image
  rm -f "$W/run.img"

  cp --sparse=always "$W/legacy.img" "$W/run.img"
  mount_image "$W/run.img"
  start=$(now)
  "$W/find-mv.sh" "$W/disk"
  end=$(now)
  moved=$(find "$W/disk/converted" -type f | wc -l)
  [[ $moved == "$MADE" ]] || { echo "mv run $run: $moved of $MADE versions renamed"; exit 1; }
  MV+=("$(elapsed "$start" "$end")")
  echo "run $run find+mv: $(elapsed "$start" "$end") s, $moved versions"
  unmount_image
  rm -f "$W/run.img" "$W/renames.tsv"
done

e=$(median "${ENGINE_RUN[@]}") p=$(median "${ENGINE_PROCESS[@]}") m=$(median "${MV[@]}")
echo
echo "versions: $MADE, runs: $RUNS (medians)"
printf "%-28s %10s s\n" "engine conversion (run)" "$e" "engine (whole process)" "$p" "find + mv script" "$m"
awk -v e="$p" -v m="$m" 'BEGIN { printf "engine / find+mv: %.3f (target: under 4)\n", e / m }'
