#!/bin/bash
# Runs one scenario in a sandbox of its own and compares what it says with what it should say, to the
# letter. Exit code 77 (skipped) where sandboxes cannot be made.
#
#   run_scenario.sh KAVRINCTL SCENARIO.sim
set -u
project=$(cd "$(dirname "$0")/../.." && pwd)
tool=$1
script=$2
expected=${script%.sim}.expected

actual=$("$project/scripts/sandbox" env TMPDIR=/tmp "$tool" smb-sim --sandboxed "$script" 2>&1)
code=$?
[ "$code" = 77 ] && exit 77
if [ "$code" != 0 ]; then
  printf '%s\nsmb-sim ended with exit code %s\n' "$actual" "$code" >&2
  exit 1
fi
printf '%s\n' "$actual" | diff -u --label expected --label actual "$expected" -
