#!/usr/bin/env bash
# Builds the benchmark optimised and runs it: moxolefio against libgsf and
# memcpy on generated documents.  Arguments go to moxbench:
#
#   bash scripts/bench.sh                  # every section, median of 5 runs
#   bash scripts/bench.sh --runs 9 read    # one section, more runs
#   bash scripts/bench.sh --quick          # small documents, a smoke run
#
# libgsf (libgsf-1-dev) is installed when missing and this runs as root
# with apt-get; without it the libgsf column stays empty.  The documents
# take about 3 GB of memory at the peak and a sparse 2 GB file in $TMPDIR.
set -euo pipefail
cd "$(dirname "$0")/.."

if ! pkg-config --exists libgsf-1 2>/dev/null && [ "$(id -u)" = 0 ] &&
   command -v apt-get >/dev/null 2>&1; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get install -y -qq libgsf-1-dev >/dev/null 2>&1 ||
    { apt-get update -qq && apt-get install -y -qq libgsf-1-dev >/dev/null; } ||
    echo "bench: libgsf-1-dev could not be installed; comparing with memcpy only" >&2
fi

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_BENCH=ON \
      -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j"$(nproc)" --target moxbench >/dev/null
exec build-bench/bench/moxbench "$@"
