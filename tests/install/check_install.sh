#!/usr/bin/env bash
# Installs a build tree into a scratch prefix, then builds and runs a small
# C host against the installed package twice (pkg-config, find_package),
# and runs the installed moxole, which must find its library by itself.
#   check_install.sh BUILD_DIR SAMPLE_DOCUMENT [EXTRA_COMPILER_FLAGS]
set -euo pipefail
build=$1 sample=$2 flags=${3:-}
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name 'libmoxolefio.so' | head -n 1)")
test -f "$prefix/include/moxolefio.h"

# 1. pkg-config
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
cc $flags -o "$scratch/host-pc" "$here/host.c" \
   $(pkg-config --cflags --libs moxolefio) -Wl,-rpath,"$libdir"
"$scratch/host-pc" "$sample" | grep -q "^moxolefio $(pkg-config --modversion moxolefio) opened "

# 2. find_package
cmake -S "$here" -B "$scratch/outside" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
      -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
cmake --build "$scratch/outside" >/dev/null
"$scratch/outside/outside_host" "$sample" | grep -q "opened"

# 3. the C++ example, through find_package and through pkg-config
cmake -S "$here/../../examples" -B "$scratch/examples" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
      -DCMAKE_BUILD_RPATH="$libdir" >/dev/null
cmake --build "$scratch/examples" >/dev/null
"$scratch/examples/list_and_read" "$sample" | grep -q "^stream .*/WordDocument$"
# shellcheck disable=SC2046,SC2086
c++ -std=c++17 $flags -o "$scratch/example-pc" "$here/../../examples/list_and_read.cpp" \
    $(pkg-config --cflags --libs moxolefio) -Wl,-rpath,"$libdir"
"$scratch/example-pc" "$sample" WordDocument | cmp - <("$scratch/examples/list_and_read" "$sample" WordDocument)

# 4. the installed program finds the installed library by itself
env -u MOXOLE_LIBRARY "$prefix/bin/moxole" info "$sample" | grep -q "^sector size: *512$"
echo "install checks passed"
