#!/usr/bin/env bash
# Installs what the tests and the fuzz targets need (Debian packages, and
# SheetJS cfb from npm into tests/oracles/node_modules), then:
#  1. builds everything with AddressSanitizer and UndefinedBehaviorSanitizer
#     (optimised, assertions on) and runs the whole suite there once;
#  2. builds the library, moxole and the Python package without sanitizers
#     (the interpreter is not built with them) and runs the pytest suite;
#  3. builds the thread suites with ThreadSanitizer and runs them.
# Suites labelled "large" (gigabyte streams, minutes of disk work) are left
# out unless MOX_LARGE_TESTS=1; they then run in the plain build.  The fuzz
# targets are built and run by scripts/fuzz.sh.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(cmake g++ make pkg-config libgtest-dev libbenchmark-dev
          python3 python3-olefile libgsf-bin libolecf-utils
          default-jdk-headless libapache-poi-java
          clang libclang-rt-14-dev
          python3-dev python3-pytest python3-pybind11 pybind11-dev python3-pip python3-venv)
# Node and npm only where neither is there in some form already.
command -v node >/dev/null 2>&1 || packages+=(nodejs)
command -v npm >/dev/null 2>&1 || packages+=(npm)
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

# The interop tests' SheetJS cfb reader (its absence skips those cases).
if command -v npm >/dev/null 2>&1 && [ ! -d tests/oracles/node_modules/cfb ]; then
  npm install --prefix tests/oracles --no-audit --no-fund --silent ||
    echo "test: npm install of cfb failed; its interop cases will be skipped" >&2
fi

jobs=$(nproc)
# Each step's time goes to the log, so that CI's budget can be watched.
step() { echo "== test.sh: $1 (at ${SECONDS} s)"; }
step "sanitizer build"
# -O1 without NDEBUG: quick to build, and sanitizers see every check.
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g" -DMOX_SANITIZE=ON -DMOX_BUILD_TESTS=ON
cmake --build build-asan -j"$jobs"
step "sanitizer suite"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -LE large

step "Python package"
# The Python package, with the system interpreter Debian's pybind11 and
# olefile are built for (and the pip installation, which CTest leaves out).
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_BUILD_TESTS=ON
cmake --build build -j"$jobs" --target moxole _moxolefio moxpy_native_dump
PYTHONPATH=build/python MOXOLE_PROGRAM=build/moxole MOXPY_NATIVE_DUMP=build/python/moxpy_native_dump \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider python/tests
# The mutation script's choice of sites (it needs no build).
/usr/bin/python3 -m pytest -q -p no:cacheprovider scripts/test_mutate.py
if [ "${MOX_LARGE_TESTS:-0}" = 1 ]; then
  cmake --build build -j"$jobs"
  ctest --test-dir build --output-on-failure -L large
fi

step "ThreadSanitizer"
# ThreadSanitizer: only the suites that run threads at once (the host
# interface's, label "threads"; the native interface's NativeThreads),
# built in their own folder, so that it costs a minute or two.  Any report
# fails the step.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_TSAN=ON \
  -DMOX_BUILD_TESTS=ON -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc
cmake --build build-tsan -j"$jobs" --target test_threads test_native_api
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  ctest --test-dir build-tsan --output-on-failure -L threads
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  build-tsan/tests/test_native_api --gtest_filter='NativeThreads.*'
step "done"
echo "all tests passed"
