#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs them.
#
#   scripts/fuzz.sh [TARGET|all] [SECONDS]   run one target (read, write, vos,
#                                             props, native, edit)
#                                             or each in turn; 60 s by default
#   scripts/fuzz.sh merge TARGET              fold what a run learned into
#                                             the corpus kept in the project
#   scripts/fuzz.sh coverage                  line coverage of the library
#                                             over the corpora kept so far
#
# A run starts from the corpus kept in the project (fuzz/corpus/TARGET,
# inputs the fuzzer made and `merge` kept), from the hand-designed seeds
# kept in fuzz/seeds/TARGET (edge cases, programs, property sets of every
# value type), and for the two targets that
# read whole files the real files of the shared corpus (MOX_CORPUS_DIR, by
# default ../shared/corpus beside the project), which are read from there
# and never copied into the project.  What the fuzzer learns is written to
# $FUZZ_BUILD/corpus/TARGET, never to the kept corpus; a finding is written
# to $FUZZ_BUILD/findings/TARGET and makes the script fail.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=${FUZZ_BUILD:-build-fuzz}
case "$build" in /*) ;; *) build="$root/$build" ;; esac
corpus_dir=${MOX_CORPUS_DIR:-$root/../shared/corpus}
targets=(read write vos props native edit)
kept="$root/fuzz/corpus"
# Where the targets make their scratch directories: TMPDIR when it is set,
# otherwise a RAM file system when there is one, since the OS-layer target
# syncs, truncates and removes files all the time (some 30 times faster
# there than on a disk), otherwise /tmp.
scratch_base=${TMPDIR:-}
if [ -z "$scratch_base" ]; then
  scratch_base=/tmp
  if [ -d /dev/shm ] && [ -w /dev/shm ]; then scratch_base=/dev/shm; fi
fi

usage() {
  echo "usage: scripts/fuzz.sh [read|write|vos|props|native|edit|all] [SECONDS] | merge TARGET | coverage" >&2
  exit 2
}

# Largest input per target: whole small documents for the reader, short
# programs for the others.
max_len() {
  case "$1" in
    read|native) echo 262144 ;;
    props) echo 65536 ;;
    *) echo 4096 ;;
  esac
}

configure_and_build() {  # build-dir extra-cmake-args...
  local dir=$1
  shift
  if [ ! -f "$dir/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DMOX_BUILD_FUZZ=ON -DMOX_BUILD_TESTS=OFF "$@" >/dev/null
  fi
  cmake --build "$dir" -j"$(nproc)" --target fuzz_read fuzz_write fuzz_vos fuzz_props \
    fuzz_native fuzz_edit
}

make_seeds() {  # build-dir
  local dir=$1
  rm -rf "$dir/seeds"
  cp -r "$root/fuzz/seeds" "$dir/seeds"
  rm -f "$dir/seeds/README.md"
  # The native interface reads the same files as the ABI's reader; edit
  # programs start from nothing but the kept corpus.
  mkdir -p "$dir/seeds/native" "$dir/seeds/edit"
  cp "$dir/seeds/read/." -r "$dir/seeds/native/"
  if [ -d "$corpus_dir" ]; then
    local limit
    limit=$(max_len read)
    while IFS= read -r -d '' file; do
      local name=${file#"$corpus_dir"/}
      cp "$file" "$dir/seeds/read/corpus-${name//\//-}"
      cp "$file" "$dir/seeds/native/corpus-${name//\//-}"
    done < <(find "$corpus_dir" -type f -size -"$((limit + 1))"c \
               ! -name '*.tsv' ! -name '*.md' ! -name '*.py' -print0)
  else
    echo "fuzz.sh: no corpus at $corpus_dir; builder-made seeds only" >&2
  fi
}

# Runs one target; 0 when it found nothing.
run_target() {  # target seconds
  local target=$1 seconds=$2
  local corpus="$build/corpus/$target" findings="$build/findings/$target"
  local log="$build/logs/$target.log"
  mkdir -p "$corpus" "$findings" "$build/logs" "$kept/$target"
  # The targets make their scratch directories under TMPDIR; one per run,
  # removed afterwards even when a finding stopped the target.
  local scratch
  scratch=$(mktemp -d "$scratch_base/moxfuzz-run-XXXXXX")
  local status=0 options=()
  [ -f "$root/fuzz/$target.dict" ] && options+=(-dict="$root/fuzz/$target.dict")
  # Absolute paths only: the OS-layer target changes its working directory.
  TMPDIR="$scratch" "$build/fuzz/fuzz_$target" "${options[@]}" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len="$(max_len "$target")" -print_final_stats=1 \
    -artifact_prefix="$findings/" "$corpus" "$kept/$target" "$build/seeds/$target" >"$log" 2>&1 || status=$?
  rm -rf "$scratch"
  local runs speed
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  if [ "$status" -ne 0 ]; then
    echo "fuzz $target: FINDING after ${runs:-?} runs; see $log and $findings" >&2
    grep -m1 -E 'ERROR|moxfuzz|SUMMARY' "$log" >&2 || true
    return 1
  fi
  echo "fuzz $target: ${runs:-?} runs in ${seconds} s (${speed:-?} per second), nothing found"
}

coverage() {
  local dir="$build-coverage"
  configure_and_build "$dir" -DMOX_FUZZ_COVERAGE=ON
  make_seeds "$dir"
  local profiles="$dir/profiles"
  rm -rf "$profiles"
  mkdir -p "$profiles"
  local scratch
  scratch=$(mktemp -d "$scratch_base/moxfuzz-run-XXXXXX")
  for target in "${targets[@]}"; do
    mkdir -p "$build/corpus/$target" "$kept/$target"
    # -runs=0 runs every input once and stops.
    TMPDIR="$scratch" LLVM_PROFILE_FILE="$profiles/$target-%p.profraw" \
      "$dir/fuzz/fuzz_$target" -runs=0 -timeout=60 -rss_limit_mb=4096 \
      "$build/corpus/$target" "$kept/$target" "$dir/seeds/$target" >"$profiles/$target.log" 2>&1
  done
  rm -rf "$scratch"
  llvm-profdata-14 merge -sparse "$profiles"/*.profraw -o "$profiles/all.profdata"
  local objects=("$dir/fuzz/fuzz_read" -object "$dir/fuzz/fuzz_write" -object "$dir/fuzz/fuzz_vos"
                 -object "$dir/fuzz/fuzz_props" -object "$dir/fuzz/fuzz_native"
                 -object "$dir/fuzz/fuzz_edit" -instr-profile="$profiles/all.profdata")
  llvm-cov-14 report "${objects[@]}" "$root/reader" "$root/writer" "$root/interface" \
    "$root/tree" "$root/vos" "$root/native" | tee "$profiles/report.txt"
  echo
  echo "lines covered by the corpora (full report: $profiles/report.txt):"
  for part in reader writer tree interface vos native/edit native/properties native; do
    awk -v part="$part" 'index($1, part "/") == 1 { lines += $8; missed += $9 }
      END { if (lines > 0) printf "  %-17s %6d of %6d lines  %.1f%%\n", part, lines - missed, lines, 100 * (lines - missed) / lines
            else printf "  %-17s not linked into the targets\n", part }' "$profiles/report.txt"
  done
}

# Largest input kept in the project: what a run learns from whole
# documents can be large, and the kept corpus is meant to stay small.
kept_len() {
  case "$1" in
    read|native|props) echo 8192 ;;
    *) echo 4096 ;;
  esac
}

# Folds $build/corpus/TARGET into fuzz/corpus/TARGET: the smallest set of
# inputs, of the kept ones and the run's, that covers all they cover.
# Inputs byte for byte equal to a seed or a shared corpus file are left
# out, so that the kept corpus holds only what the fuzzer made.
merge() {  # target
  local target=$1
  configure_and_build "$build"
  make_seeds "$build"
  local work="$build/merge/$target"
  rm -rf "$work"
  mkdir -p "$work/candidates" "$work/merged" "$kept/$target" "$build/corpus/$target"
  local limit
  limit=$(kept_len "$target")
  # The fuzzer names inputs by their hash: a name in both is the same input.
  local from
  for from in "$kept/$target" "$build/corpus/$target"; do
    find "$from" -type f -size -"$((limit + 1))"c -exec cp -f -t "$work/candidates" {} +
  done
  local scratch
  scratch=$(mktemp -d "$scratch_base/moxfuzz-run-XXXXXX")
  TMPDIR="$scratch" "$build/fuzz/fuzz_$target" -merge=1 -timeout=30 -rss_limit_mb=2048 \
    -max_len="$limit" "$work/merged" "$work/candidates" >"$work/merge.log" 2>&1 ||
    { rm -rf "$scratch"; echo "fuzz.sh: merge failed; see $work/merge.log" >&2; return 1; }
  rm -rf "$scratch"
  local sums
  sums=$( { find "$build/seeds/$target" -type f -print0
            [ -d "$corpus_dir" ] && find "$corpus_dir" -type f -print0; } |
          xargs -0 -r sha1sum | cut -d' ' -f1 | sort -u)
  local file
  for file in "$work/merged"/*; do
    [ -e "$file" ] || continue
    if grep -qx "$(sha1sum "$file" | cut -d' ' -f1)" <<<"$sums"; then rm "$file"; fi
  done
  rm -rf "${kept:?}/$target"
  mv "$work/merged" "$kept/$target"
  echo "fuzz $target: kept $(find "$kept/$target" -type f | wc -l) inputs of" \
    "$(find "$kept/$target" -type f -printf '%s\n' | awk '{ n += $1 } END { print n + 0 }') bytes" \
    "in fuzz/corpus/$target"
}

what=${1:-all}
seconds=${2:-60}
case "$what" in
  coverage)
    coverage
    exit 0
    ;;
  merge)
    case "${2:-}" in
      read|write|vos|props|native|edit) merge "$2" ;;
      *) usage ;;
    esac
    exit 0
    ;;
  all) chosen=("${targets[@]}") ;;
  read|write|vos|props|native|edit) chosen=("$what") ;;
  *) usage ;;
esac
[[ "$seconds" =~ ^[0-9]+$ ]] || usage

configure_and_build "$build"
make_seeds "$build"
failed=0
for target in "${chosen[@]}"; do
  run_target "$target" "$seconds" || failed=1
done
exit "$failed"
