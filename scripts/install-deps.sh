#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test, benchmark,
# fuzz and format, skipping those already installed. Uses sudo when not root.
# Prints one line per step; a step's full apt output is shown only when it
# fails.
set -euo pipefail

packages=(
  make cmake ninja-build g++ pkg-config
  clang libclang-rt-14-dev        # sanitizers and fuzzers
  clang-format                    # make format
  googletest libgtest-dev         # tests
  libbenchmark-dev                # benchmarks
  libxxhash-dev                   # hashing
  rapidjson-dev                   # benchmark baselines
  libsimdjson-dev                 # benchmark baseline (bench_jsmn)
  libboost-dev libsigc++-2.0-dev  # signal libraries compared in bench_reg
  valgrind                        # memcheck
  clang-format                    # the code style check of .ci/run
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=()
if [[ $(id -u) -ne 0 ]]; then
  if ! command -v sudo > /dev/null; then
    echo "install-deps: missing Debian packages: ${missing[*]}" >&2
    echo "install-deps: sudo is not available; ask an administrator to run" >&2
    echo "  apt-get install ${missing[*]}" >&2
    exit 1
  fi
  sudo=(sudo)
fi

log=$(mktemp "${TMPDIR:-/tmp}/zor-install-deps.XXXXXX")
trap 'rm -f "$log"' EXIT

# step TEXT COMMAND...: one line, the command's output kept in the log.
step() {
  local text=$1
  shift
  printf 'install-deps: %s ... ' "$text"
  if "$@" > "$log" 2>&1 < /dev/null; then
    echo ok
  else
    local rc=$?
    echo "FAILED (exit status $rc); its output:"
    cat "$log"
    exit "$rc"
  fi
}

# sudo asks for the password before the quiet steps, on the terminal.
if [[ ${#sudo[@]} -gt 0 ]] && ! sudo -n true 2> /dev/null; then
  echo "install-deps: sudo is needed to install: ${missing[*]}"
  sudo -v
fi
step "updating the package lists" "${sudo[@]}" apt-get update
step "installing ${missing[*]}" "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y --no-install-recommends "${missing[@]}"
