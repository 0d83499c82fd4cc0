#!/usr/bin/env bash
# Checks that what the README says about the project's own commands holds:
# the quick start is the two commands `make demo` and `make test`; the demo
# command it shows runs the Makefile's demo files; the change file it says
# is rejected on purpose is the one the demo's report rejects, and the demo
# target says so too; every rule zorcheck reports is named.
# Usage: check_readme.sh SOURCE_DIR
set -uo pipefail
src=$1
readme=$src/README.md
failures=0
fail() {
  echo "README.md: $*"
  failures=$((failures + 1))
}

# The quick start's command block.
quick=$(awk '/^## Quick start/ { on = 1; next } /^## / { on = 0 } on && /^    [^ ]/' "$readme" |
        sed 's/^    //; s/ *#.*//')
[[ $quick == $'make demo\nmake test' ]] || fail "the quick start is not exactly 'make demo' and 'make test': $quick"

# The demo files: the README's zorcheck command and the Makefile's DEMO_FILES.
shown=$(awk '/build\/examples\/zorcheck --state/ { on = 1 } on { print } on && !/\\$/ { exit }' "$readme" |
        grep -o 'examples/data/[^ ]*\.json' | tr '\n' ' ')
made=$(sed -n '/^DEMO_FILES *=/,/[^\\]$/p' "$src/Makefile" | grep -o 'examples/data/[^ ]*\.json' | tr '\n' ' ')
[[ -n $shown && $shown == "$made" ]] || fail "the zorcheck command shows '$shown', make demo runs '$made'"

# The file the demo rejects, from its golden report.
rejected=$(grep -B2 '"result": "rejected"' "$src/examples/data/expected-report.json" |
           sed -n 's/.*"file": "\(.*\)",/\1/p')
[[ $(wc -w <<< "$rejected") -eq 1 ]] || fail "the demo's report should reject exactly one file: $rejected"
name=$(basename "$rejected")
grep -q "\`$name\`, breaks rules on" "$readme" || fail "does not say that $name is rejected on purpose"
grep -q "$name breaks rules on purpose" "$src/Makefile" || fail "make demo does not say that $name is rejected"

# Every rule name the report can carry.
rules=$(sed -n 's/^ *\[RULE_[A-Z_]*\] = "\([a-z-]*\)",/\1/p' "$src/examples/zorcheck/rules.c")
rules+=" "$(grep -o 'violation("[a-z-]*"' "$src/examples/zorcheck/report.c" | cut -d'"' -f2)
[[ $(wc -w <<< "$rules") -ge 8 ]] || fail "found only these rule names in zorcheck: $rules"
for r in $rules; do
  grep -q "\`$r\`" "$readme" || fail "does not name the rule '$r'"
done

[[ $failures -eq 0 ]] && echo "README.md: quick start, demo and rules as the project has them"
[[ $failures -eq 0 ]]
