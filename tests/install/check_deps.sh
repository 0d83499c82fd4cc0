#!/usr/bin/env bash
# Runs scripts/install-deps.sh against stand-ins for dpkg-query, apt-get and
# sudo that pretend one package is missing and print apt's usual flood of
# progress lines: the script prints one line per step and nothing else, and
# when a step fails it shows that step's whole output and fails.
# Usage: check_deps.sh SOURCE_DIR WORK_DIR
set -uo pipefail
src=$1 work=$2
rm -rf "$work"
mkdir -p "$work/bin"
cat > "$work/bin/dpkg-query" <<'FAKE'
#!/bin/sh
for last; do :; done
[ "$last" = "${FAKE_MISSING:-}" ] || printf 'install ok installed'
FAKE
cat > "$work/bin/apt-get" <<'FAKE'
#!/bin/sh
i=0
while [ $i -lt 300 ]; do echo "Unpacking package $i ..."; i=$((i + 1)); done
echo "debconf: delaying package configuration, since apt-utils is not installed" >&2
case " $* " in *" install "*) [ -z "${FAKE_FAIL:-}" ] || { echo "E: no room left" >&2; exit 100; } ;; esac
exit 0
FAKE
cat > "$work/bin/sudo" <<'FAKE'
#!/bin/sh
case "$1" in -n | -v) exit 0 ;; esac
exec "$@"
FAKE
chmod +x "$work/bin/"*
export PATH=$work/bin:$PATH
failures=0
fail() {
  echo "install-deps: $*"
  failures=$((failures + 1))
}

out=$(FAKE_MISSING= bash "$src/scripts/install-deps.sh" 2>&1) || fail "fails with nothing missing"
[[ -z $out ]] || fail "prints with nothing missing: $out"

out=$(FAKE_MISSING=valgrind bash "$src/scripts/install-deps.sh" 2>&1) || fail "fails on a good install"
want=$'install-deps: updating the package lists ... ok\ninstall-deps: installing valgrind ... ok'
[[ $out == "$want" ]] || fail "a good install should print two lines, printed:"$'\n'"$(head -n 20 <<< "$out")"

out=$(FAKE_MISSING=valgrind FAKE_FAIL=1 bash "$src/scripts/install-deps.sh" 2>&1) &&
  fail "a failed install succeeds"
grep -q 'installing valgrind ... FAILED' <<< "$out" || fail "a failed install is not reported"
grep -q 'E: no room left' <<< "$out" && grep -q 'Unpacking package 299' <<< "$out" ||
  fail "a failed install does not show apt's output"

[[ $failures -eq 0 ]] && echo "install-deps: one line per step, the log only on failure"
[[ $failures -eq 0 ]]
