#!/usr/bin/env bash
# Installs the Debian packages the project needs to build, test, benchmark
# and fuzz, skipping those already installed. Uses sudo when not root.
set -euo pipefail

packages=(
  make cmake ninja-build g++ pkg-config
  clang libclang-rt-14-dev        # sanitizers and fuzzers
  googletest libgtest-dev         # tests
  libbenchmark-dev                # benchmarks
  libxxhash-dev                   # hashing
  rapidjson-dev                   # benchmark baselines
  libboost-dev libsigc++-2.0-dev  # signal libraries compared in bench_reg
  valgrind                        # memcheck
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
