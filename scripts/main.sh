#!/usr/bin/env bash
# Builds the library and its command-line host, then runs the host on the
# bundled sample document.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
./build/tools/moxole-peek samples/sample.doc
