#!/usr/bin/env bash
# Follows the README's "Using the library" section as written, with HOME set
# to a scratch directory: `make install PREFIX=...` (or, when the build is not
# the Makefile's, the same install through cmake --install), then the
# pkg-config commands and the CMake commands on app.c and CMakeLists.txt,
# each of which must build app.c and run it, printing the output the README
# shows.
# Usage: readme_commands.sh SOURCE_DIR BUILD_DIR WORK_DIR
set -uo pipefail
src=$1 build=$2 work=$3

rm -rf "$work"
mkdir -p "$work/blocks" "$work/home"
awk -v out="$work/blocks" -f "$src/tests/snippets/extract.awk" "$src/README.md" || exit 1
mapfile -t entries < "$work/blocks/index"

die() {
  echo "readme_commands: $*"
  exit 1
}

# block LANG PATTERN [PROSE]: the first LANG block whose text matches PATTERN
# (grep -E) and whose preceding prose line contains PROSE.
block() {
  local e line lang prose
  for e in "${entries[@]}"; do
    IFS=$'\t' read -r line lang prose <<< "$e"
    [[ $lang == "$1" && $prose == *"${3:-}"* ]] || continue
    if grep -qE "$2" "$work/blocks/$line.$lang"; then
      echo "$work/blocks/$line.$lang"
      return 0
    fi
  done
  die "README.md has no $1 block matching '$2'${3:+ after a line naming $3}"
}

# The text block right after a block: what the program prints.
output_of() {
  local i line lang
  for i in "${!entries[@]}"; do
    IFS=$'\t' read -r line lang _ <<< "${entries[$i]}"
    if [[ $work/blocks/$line.$lang == "$1" ]]; then
      IFS=$'\t' read -r line lang _ <<< "${entries[$((i + 1))]:-}"
      [[ $lang == text ]] || die "no text block follows ${1##*/}"
      echo "$work/blocks/$line.text"
      return 0
    fi
  done
}

install_sh=$(block sh '^make install PREFIX=') || exit 1
app_c=$(block c 'main *\(' '`app.c`') || exit 1
app_out=$(output_of "$app_c") || exit 1
cmakelists=$(block cmake 'find_package\(zor' '`CMakeLists.txt`') || exit 1
pkgconfig_sh=$(block sh 'pkg-config') || exit 1
cmake_sh=$(block sh 'CMAKE_PREFIX_PATH') || exit 1

export HOME=$work/home
unset PKG_CONFIG_PATH CMAKE_PREFIX_PATH MAKEFLAGS MAKELEVEL MFLAGS SUDO_UID SUDO_GID SUDO_USER

# run NAME DIR SCRIPT: runs the README's lines with sh -e in DIR.
run() {
  echo "== $1 (in $2):"
  cat "$3"
  (cd "$2" && sh -e "$3") > "$work/$1.out" 2> "$work/$1.err" ||
    { cat "$work/$1.out" "$work/$1.err"; die "$1: the README's commands fail"; }
}

# The install line as written, through the Makefile when this is its build
# (dependencies already present, so that step is skipped); otherwise the copy
# it makes.
prefix_word=$(sed -n 's/^make install PREFIX=\([^ ]*\).*/\1/p' "$install_sh")
prefix=$(eval "echo $prefix_word")
if [[ -f $build/build.ninja ]]; then
  sed "s|^make install|make -C '$src' -o deps BUILD='$build' install|" "$install_sh" > "$work/install.sh"
  run install "$work" "$work/install.sh"
else
  cmake --install "$build" --prefix "$prefix" > "$work/install.out" 2>&1 ||
    { cat "$work/install.out"; die "cmake --install into $prefix fails"; }
fi
[[ -f $prefix/include/zor/zor.h ]] || die "no zor.h under $prefix/include/zor"

for way in pkgconfig cmake; do
  dir=$work/$way
  mkdir -p "$dir"
  cp "$app_c" "$dir/app.c"
  cp "$cmakelists" "$dir/CMakeLists.txt"
  script=${way}_sh
  run "$way" "$dir" "${!script}"
  # What the program printed is the output's tail (the build's lines come first).
  lines=$(wc -l < "$app_out")
  tail -n "$lines" "$work/$way.out" > "$work/$way.app"
  cmp -s "$app_out" "$work/$way.app" ||
    { diff "$app_out" "$work/$way.app"; die "$way: app prints something else than the README shows"; }
  echo "$way: app built and prints what the README shows"
done
