#!/usr/bin/env bash
# What reporting writes costs the watcher: dd writes MEGABYTES in BLOCK
# writes into a folder on a loop-mounted ext4 disk, with no watcher, with a
# watcher that leaves writes out and with one that reports them
# (bench/bench_fanotify_writes.cpp); medians of RUNS runs are printed last.
#
#   sudo bench/fanotify_writes.sh [-m MEGABYTES] [-r RUNS] [-b BLOCK] [-B BUILD_DIR]
#
# Defaults: 1024 MiB in 4k writes, 5 runs, build dir "build".
set -euo pipefail
MB=1024 RUNS=5 BLOCK=4k BUILD=build
while getopts "m:r:b:B:" opt; do
  case $opt in
    m) MB=$OPTARG ;; r) RUNS=$OPTARG ;; b) BLOCK=$OPTARG ;; B) BUILD=$OPTARG ;;
    *) sed -n '2,9p' "$0"; exit 2 ;;
  esac
done
[[ $(id -u) == 0 ]] || { echo "run as root (loop devices, mounts, fanotify)"; exit 2; }
PROGRAM=$BUILD/bench/skerrow_bench_fanotify_writes
[[ -x $PROGRAM ]] || { echo "missing $PROGRAM (build first)"; exit 2; }
W=$(mktemp -d /var/tmp/skerrow-fw-XXXXXX)
LOOP=""
cleanup() {
  mountpoint -q "$W/mnt" && umount "$W/mnt" || true
  [[ -n $LOOP ]] && losetup -d "$LOOP" || true
  rm -rf "$W"
}
trap cleanup EXIT
truncate -s $((MB + 512))M "$W/disk.img"
mkfs.ext4 -q -F "$W/disk.img"
LOOP=$(losetup --find --show "$W/disk.img")
mkdir "$W/mnt"
mount "$LOOP" "$W/mnt"
mkdir "$W/mnt/watched"
echo "kernel $(uname -r), $(nproc) cores; ext4 on $LOOP"
"$PROGRAM" "$W/mnt/watched" "$MB" "$RUNS" "$BLOCK"
