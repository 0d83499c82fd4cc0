#!/usr/bin/env bash
# Integration tests of the zorcheck example: golden report, rollback leaves
# the committed state as it was, every input error class with its message
# and exit status, and the scale mode.
# Usage: run.sh ZORCHECK SOURCE_DIR
set -u
zc=$1
src=$2
data=$src/examples/data
here=$src/tests/zorcheck
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# run NAME EXPECTED_STATUS ARGS...: output in $tmp/NAME.out and .err
run() {
  local name=$1 want=$2
  shift 2
  (cd "$src" && "$zc" "$@") >"$tmp/$name.out" 2>"$tmp/$name.err"
  local got=$?
  [[ $got -eq $want ]] || fail "$name: exit status $got, expected $want"
}

# The "state" member of a report, from its line to the end.
state_of() {
  sed -n '/^  "state": {/,$p' "$1"
}

files=(examples/data/base.json examples/data/01-add-eth2.json examples/data/02-bad-rollout.json
       examples/data/03-defaults.json)

# 1. The sample run matches its golden report, byte for byte.
run golden 1 --state "${files[@]}"
cmp -s "$tmp/golden.out" "$data/expected-report.json" ||
  { fail "golden: report differs"; diff "$data/expected-report.json" "$tmp/golden.out" | head -40; }
[[ -s "$tmp/golden.err" ]] && fail "golden: unexpected standard error: $(cat "$tmp/golden.err")"

# 2. A rejected transaction leaves the committed state exactly as it was.
run committed 0 --state "${files[0]}" "${files[1]}"
run rejected 1 --state "${files[0]}" "${files[1]}" "${files[2]}"
state_of "$tmp/committed.out" >"$tmp/committed.state"
state_of "$tmp/rejected.out" >"$tmp/rejected.state"
[[ -s "$tmp/committed.state" ]] || fail "committed: no state in the report"
cmp -s "$tmp/committed.state" "$tmp/rejected.state" || fail "rejected: committed state changed"
grep -q '"result": "rejected"' "$tmp/rejected.out" || fail "rejected: not reported rejected"

# 3. Bad input: its error on standard error and in the report, its status,
#    and the state committed before it kept.
check_error() {
  local name=$1 status=$2 pattern=$3
  shift 3
  run "$name" "$status" --state "${files[0]}" "${files[1]}" "$@"
  grep -Eq "$pattern" "$tmp/$name.err" ||
    fail "$name: standard error '$(cat "$tmp/$name.err")' does not match '$pattern'"
  grep -q '"result": "error"' "$tmp/$name.out" || fail "$name: no error entry in the report"
  state_of "$tmp/$name.out" >"$tmp/$name.state"
  cmp -s "$tmp/committed.state" "$tmp/$name.state" || fail "$name: committed state changed"
}
check_error unreadable 3 '^zorcheck: tests/zorcheck/missing\.json: cannot read: No such file' \
  tests/zorcheck/missing.json
check_error not_json 4 '^zorcheck: tests/zorcheck/not-json\.json:5:1: not JSON: the text ends before a string, object or array is closed$' \
  tests/zorcheck/not-json.json
check_error bad_shape 5 '^zorcheck: tests/zorcheck/bad-shape\.json:5:14: vlans must be an array$' \
  tests/zorcheck/bad-shape.json
check_error bad_value 6 '^zorcheck: tests/zorcheck/bad-value\.json:5:55: bad value for address address: "10\.0\.0\.256"$' \
  tests/zorcheck/bad-value.json

# Files after the bad one are not applied.
run stops 4 "${files[0]}" tests/zorcheck/not-json.json "${files[1]}"
grep -q '01-add-eth2' "$tmp/stops.out" && fail "stops: a file after the error was applied"

# 4. Usage errors.
run no_args 2
run bad_option 2 --frobnicate "${files[0]}"
run bad_count 2 --generate 0

# 5. The scale mode builds, validates and rolls back.
run generate 0 --generate 2000 --transactions 20
for phase in load validate rollback; do
  grep -Eq "^  $phase .* records/s$" "$tmp/generate.out" || fail "generate: no $phase figure"
done

if [[ $failures -ne 0 ]]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "all zorcheck checks passed"
