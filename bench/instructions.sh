#!/usr/bin/env bash
# Instructions per registry operation, counted by callgrind (exact where
# wall-clock times on a shared machine are not), for zor and the designs it
# is compared with in bench_reg: per changed set with its delivery, per
# unchanged set, per delivered record. Usage:
#   bench/instructions.sh [BENCH_REG] [DESIGN...]
# BENCH_REG defaults to build-bench/bench/bench_reg (make bench builds it).
set -euo pipefail

bin=${1:-build-bench/bench/bench_reg}
shift || true
designs=("$@")
[[ ${#designs[@]} -gt 0 ]] || designs=(zor zor-builtin dirty naive signals2 sigc)
phases=(changed unchanged delivered)

[[ -x "$bin" ]] || { echo "instructions.sh: no $bin (run make bench first)" >&2; exit 2; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

printf '%-12s' design
for ph in "${phases[@]}"; do printf ' %12s' "$ph"; done
printf '\n'
for d in "${designs[@]}"; do
  printf '%-12s' "$d"
  for ph in "${phases[@]}"; do
    if ops=$(valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$tmp/out" \
               --log-file="$tmp/log" "$bin" --ops "$d" "$ph" 2>/dev/null); then
      ir=$(sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$tmp/log")
      awk -v ir="$ir" -v ops="$ops" 'BEGIN { printf " %12.1f", ir / ops }'
    else
      printf ' %12s' '-'
    fi
  done
  printf '\n'
done
