#!/usr/bin/env bash
# Builds the library and moxole, then shows moxole at work on the bundled
# samples: packs the folder samples/tree into a compound file and reads it
# back, then lists samples/sample.doc.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" >/dev/null

moxole=./build/moxole
errors=$(mktemp)
packed=build/sample-tree.doc
trap 'rm -f "$errors"' EXIT

# Runs one moxole command and shows it.  A library that does not provide a
# command's functions yet says so (exit 4, "lacks"): that is noted and the
# job goes on; any other failure ends it.
show() {
  echo "\$ moxole $*"
  local status=0
  "$moxole" "$@" 2>"$errors" || status=$?
  if [ "$status" -eq 4 ] && grep -q "lacks" "$errors"; then
    echo "(skipped: $(sed 's/^moxole: //' "$errors"))"
  elif [ "$status" -ne 0 ]; then
    cat "$errors" >&2
    exit "$status"
  fi
  echo
}

rm -f "$packed"
show pack samples/tree "$packed"
if [ -f "$packed" ]; then
  show tree "$packed"
  show cat "$packed" Greeting.txt
  show cat "$packed" Data/table.csv
fi
show info samples/sample.doc
show ls -l -R samples/sample.doc
show objects samples/sample.doc
