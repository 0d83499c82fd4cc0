#!/usr/bin/env bash
# Runs every test program of a build under valgrind memcheck, once each
# (all of its tests in one process), and every fuzz corpus replay on its
# corpus, and fails on any memory error or leak.
# Usage: scripts/memcheck.sh BUILD_DIR
set -uo pipefail
build=${1:?usage: memcheck.sh BUILD_DIR}
logdir="$build/memcheck"
mkdir -p "$logdir"

# The reference-model test runs fewer sequences: valgrind is slow.
export ZOR_MODEL_COUNT=${ZOR_MODEL_COUNT:-100}

root=$(cd "$(dirname "$0")/.." && pwd)
status=0
count=0
for prog in "$build"/tests/test_* "$build"/fuzz/fuzz_*_replay; do
  [[ -x "$prog" && -f "$prog" ]] || continue
  name=$(basename "$prog")
  count=$((count + 1))
  if [[ $name == *_replay ]]; then
    args=("$root/fuzz/corpus/${name%_replay}")
  else
    args=(--gtest_brief=1)
  fi
  if valgrind --quiet --error-exitcode=99 --leak-check=full \
       --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect \
       --track-origins=yes --log-file="$logdir/$name.%p.log" \
       "$prog" "${args[@]}" > "$logdir/$name.out" 2>&1; then
    echo "memcheck: $name clean"
  else
    echo "memcheck: $name FAILED (see $logdir/$name.*)"
    tail -n 30 "$logdir/$name.out"
    cat "$logdir/$name".*.log 2>/dev/null | head -n 60
    status=1
  fi
done
[[ $count -gt 0 ]] || { echo "memcheck: no test programs in $build/tests"; exit 1; }
exit $status
