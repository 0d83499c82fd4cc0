#!/usr/bin/env bash
# Runs every fuzz target of a fuzz build for a bounded time, each on a
# scratch copy of its seed corpus (the corpus in the repository is not
# changed). Fails when a target finds a crash or a broken property.
# Usage: scripts/fuzz.sh BUILD_DIR SECONDS
set -uo pipefail
build=${1:?usage: fuzz.sh BUILD_DIR SECONDS}
seconds=${2:?usage: fuzz.sh BUILD_DIR SECONDS}
root=$(cd "$(dirname "$0")/.." && pwd)
status=0
for prog in "$build"/fuzz/fuzz_*; do
  [[ -x "$prog" && -f "$prog" ]] || continue
  name=$(basename "$prog")
  work="$build/fuzz-work/$name"
  rm -rf "$work" && mkdir -p "$work/corpus" "$work/artifacts"
  [[ -d "$root/fuzz/corpus/$name" ]] && cp "$root/fuzz/corpus/$name"/* "$work/corpus/" 2>/dev/null
  if "$prog" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
       "$work/corpus" > "$work/log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$work/log" | grep -o '[0-9]*$')
    echo "fuzz: $name ok (${runs:-?} runs in ${seconds}s)"
  else
    echo "fuzz: $name FAILED"
    tail -n 40 "$work/log"
    status=1
  fi
done
exit $status
