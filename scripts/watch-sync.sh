#!/usr/bin/env bash
# The full run of the watcher's barrier against the real kernel: rounds of
# changes made by another process (a folder, a file created, a write to a
# file kept open, a rename, a mode change, a deletion), each followed by
# QSFSWatcher::synchronize, which must find every one of them delivered; half
# the rounds with the reader held behind the changes until the drain is
# asked (tests/integration/WatcherSynchronizeKernelTest.cpp; CI runs 200).
# Needs root and loop devices.
#
#   scripts/watch-sync.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
export SKERROW_WATCH_SYNC_ROUNDS="${2:-5000}"
cmake --build "$build" --target skerrow_integration_tests
"$build/tests/skerrow_integration_tests" --gtest_filter='WatcherKernelTest.EveryChangeMadeBeforeSynchronizeHasBeenDeliveredWhenItReturns'
