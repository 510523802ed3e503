#!/usr/bin/env bash
# The same work on Linux and on Windows leaves the same bytes, and what one began the other goes on
# with. Arguments: the program for Windows, and what runs it.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
windows_program=$1
wine=$2
cd "$root"
cmake --preset debug >/dev/null
cmake --build --preset debug --target zelta-same-bytes >/dev/null
linux_program=$root/build/debug/tests/zelta-same-bytes

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
on_linux() { "$linux_program" "$1" "$folder/$2/shop.zlc"; }
on_windows() { "$wine" "$windows_program" "$1" "Z:${folder//\//\\}\\$2\\shop.zlc" | tr -d '\r'; }

# The memory file and the lock file, which only one of the platforms makes, hold nothing that outlives
# the last closer.
same() {
  local names
  names=$(cd "$folder/$1" && ls | grep -v '\.zl[mk]$')
  [ "$names" = "$(cd "$folder/$2" && ls | grep -v '\.zl[mk]$')" ] || { echo "$1 and $2 have other files"; ls -l "$folder/$1" "$folder/$2"; exit 1; }
  for name in $names; do
    cmp "$folder/$1/$name" "$folder/$2/$name" || { echo "$1 and $2 differ"; exit 1; }
  done
  echo "$1 and $2: the same bytes in" $names
}
both_check() {
  local one two
  one=$(on_linux check "$1")
  two=$(on_windows check "$1")
  [ "$one" = "$two" ] || { echo "$1 reads as $one on Linux and as $two on Windows"; exit 1; }
}

for form in make keep; do
  mkdir "$folder/$form-linux" "$folder/$form-windows"
  on_linux $form $form-linux
  on_windows $form $form-windows
  same $form-linux $form-windows
  cp -r "$folder/$form-linux" "$folder/$form-linux-windows"
  cp -r "$folder/$form-windows" "$folder/$form-windows-linux"
  on_windows change $form-linux-windows
  on_linux change $form-windows-linux
  same $form-linux-windows $form-windows-linux
  both_check $form-linux-windows
  both_check $form-windows-linux
done

# One dies in the middle of a transaction, the other clears away what it left.
cp -r "$folder/make-linux" "$folder/left-linux"
cp -r "$folder/make-linux" "$folder/left-windows"
before=$(on_linux check make-linux)
[ "$(on_linux leave left-linux || true)" = left ]
[ "$(on_windows leave left-windows || true)" = left ]
[ "$(on_windows check left-linux)" = "$before" ]
[ "$(on_linux check left-windows)" = "$before" ]
on_windows change left-linux
on_linux change left-windows
same left-linux left-windows
echo "the same bytes on both platforms"
