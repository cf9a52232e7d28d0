#!/usr/bin/env bash
# Installs what the tests and the fuzz targets need (Debian packages), then
# builds and runs the whole suite twice: an optimised build and an
# AddressSanitizer + UndefinedBehaviorSanitizer build; then the threads
# suite under ThreadSanitizer.  The fuzz targets themselves are built and
# run by scripts/fuzz.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake g++ make pkg-config libgtest-dev libbenchmark-dev
          python3 python3-olefile libgsf-bin libolecf-utils
          clang libclang-rt-14-dev)
if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
  missing=()
  for p in "${packages[@]}"; do
    dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
  fi
fi

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_BUILD_TESTS=ON
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DMOX_SANITIZE=ON -DMOX_BUILD_TESTS=ON
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

# ThreadSanitizer: only the suite that runs threads at once (label
# "threads"), built alone in its own folder, so that it costs a minute or
# two.  Any report fails the step.  GCC, whose runtime also goes into the
# shared library the tests depend on.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_TSAN=ON \
  -DMOX_BUILD_TESTS=ON -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc
cmake --build build-tsan -j"$jobs" --target test_threads
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build-tsan --output-on-failure -L threads
echo "all tests passed"
