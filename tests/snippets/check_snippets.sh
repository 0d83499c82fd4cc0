#!/usr/bin/env bash
# Checks the C code blocks (```c) of a Markdown document as a reader would
# use them, with one compiler family (a C and a C++ compiler):
#  - a block with a main() is a whole program: it is compiled as C11 and as
#    C++17 with -Wall -Wextra -Wpedantic -Werror, linked and run (exit
#    status 0); when the next block is a ```text block, that is what the
#    program must print, byte for byte, with its standard output a pipe;
#  - any other block is an excerpt: it must appear verbatim in a source file
#    under examples/ or utils/, and a C file holding it must compile as C11
#    with the same warnings.
# Usage: check_snippets.sh DOC SOURCE_DIR WORK_DIR CC CXX MODE [LINK_ARG...]
#   MODE run (compile, link, run) or compile (objects only).
set -uo pipefail
doc=$1 src=$2 work=$3 cc=$4 cxx=$5 mode=$6
shift 6
link=("$@")
name=$(basename "$doc")
warnings=(-Wall -Wextra -Wpedantic -Werror)

rm -rf "$work"
mkdir -p "$work/blocks"
awk -v out="$work/blocks" -f "$src/tests/snippets/extract.awk" "$doc" || exit 1
touch "$work/blocks/index"
mapfile -t entries < "$work/blocks/index"

failures=0 programs=0 excerpts=0
fail() {
  echo "$name:$((10#$1)): $2"
  failures=$((failures + 1))
}

# program INDEX COMPILER STD...: compile, link, run, compare.
program() {
  local i=$1 compiler=$2
  shift 2
  local line tag
  IFS=$'\t' read -r line _ <<< "${entries[$i]}"
  tag=$work/$line-$(basename "$compiler")
  if ! "$compiler" "$@" "${warnings[@]}" -I"$src/utils" -c "$work/blocks/$line.c" -o "$tag.o" \
       > "$tag.log" 2>&1; then
    fail "$line" "does not compile with $compiler ($*):"
    cat "$tag.log"
    return
  fi
  [[ $mode == run ]] || return
  if ! "$compiler" "$tag.o" "${link[@]}" -o "$tag" > "$tag.log" 2>&1; then
    fail "$line" "does not link with $compiler:"
    cat "$tag.log"
    return
  fi
  # Standard output through a pipe, as when a reader pipes it to less.
  "$tag" 2> "$tag.err" | cat > "$tag.out"
  local status=${PIPESTATUS[0]}
  if [[ $status -ne 0 ]]; then
    fail "$line" "built with $compiler, the program exits with status $status:"
    cat "$tag.err"
    return
  fi
  local nline nlang
  IFS=$'\t' read -r nline nlang _ <<< "${entries[$((i + 1))]:-}"
  if [[ $nlang == text ]] && ! cmp -s "$work/blocks/$nline.text" "$tag.out"; then
    fail "$line" "built with $compiler, the program prints other than the text at line $((10#$nline)):"
    diff "$work/blocks/$nline.text" "$tag.out" | head -n 40
  fi
}

declare -A compiled # C source -> 1 once it compiled
# excerpt INDEX: found verbatim in a source, which compiles.
excerpt() {
  local line text content found= f
  IFS=$'\t' read -r line _ <<< "${entries[$1]}"
  text=$(cat "$work/blocks/$line.c")
  while IFS= read -r -d '' f; do
    content=$(cat "$f")
    if [[ $content == *"$text"* ]]; then
      found=$f
      break
    fi
  done < <(find "$src/examples" "$src/utils" -type f \( -name '*.c' -o -name '*.h' \) -print0 | sort -z)
  if [[ -z $found ]]; then
    fail "$line" "excerpt not found verbatim in any source under examples/ or utils/"
    return
  fi
  [[ $found == *.c && -z ${compiled[$found]:-} ]] || return
  if "$cc" -x c -std=c11 -D_POSIX_C_SOURCE=200809L "${warnings[@]}" -I"$src/utils" \
     -I"$(dirname "$found")" -fsyntax-only "$found" > "$work/$line.log" 2>&1; then
    compiled[$found]=1
  else
    fail "$line" "its source ${found#"$src"/} does not compile with $cc (-std=c11):"
    cat "$work/$line.log"
  fi
}

for i in "${!entries[@]}"; do
  IFS=$'\t' read -r line lang _ <<< "${entries[$i]}"
  [[ $lang == c ]] || continue
  if grep -q '\<main *(' "$work/blocks/$line.c"; then
    programs=$((programs + 1))
    program "$i" "$cc" -x c -std=c11
    program "$i" "$cxx" -x c++ -std=c++17
  else
    excerpts=$((excerpts + 1))
    excerpt "$i"
  fi
done

echo "$name: $programs programs (C11 and C++17), $excerpts excerpts checked with $cc and $cxx" \
  "($mode); $failures failed"
[[ $failures -eq 0 ]]
