#!/usr/bin/env bash
# Fuzzes the whole job with libFuzzer (clang): scripts/fuzz.sh SECONDS [CORPUS]
# [WORKERS]. New inputs go to CORPUS (default: a throw-away directory); WORKERS
# processes (default 1) share it, each logging to fuzz-<n>.log when more than
# one. FUZZ_SANITIZERS=undefined builds without AddressSanitizer, about twice
# as fast. Any crash, sanitizer report, leak or timeout fails and leaves the
# input in build-fuzz*/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?seconds}
corpus=${2:-}
if [ -z "$corpus" ]; then
  corpus=$(mktemp -d)
  trap 'rm -rf "$corpus"' EXIT
fi
workers=${3:-1}
sanitizers=${FUZZ_SANITIZERS:-address,undefined}
build=build-fuzz
[ "$sanitizers" = address,undefined ] || build=build-fuzz-${sanitizers//,/-}

CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -G Ninja -DOSTRA_FUZZ=ON \
  -DOSTRA_FUZZ_SANITIZERS="$sanitizers" >/dev/null
cmake --build "$build" --target ostra_fuzz_job --parallel "$(nproc)" >&2
mkdir -p "$corpus"

# libcups allocates the row buffer a page header asks for (up to 4 GB) before
# the filter can refuse the header. Past 600 MB, above the filter's own largest
# block (the stencil's error buffer for a 4096 x 32767 page), the allocation
# fails as under a print server's memory limit instead of costing seconds of
# sanitizer bookkeeping.
export ASAN_OPTIONS=max_allocation_size_mb=600:allocator_may_return_null=1:malloc_context_size=10
export LSAN_OPTIONS=suppressions=$PWD/tests/fuzz/lsan.supp
# Each job writes a few small files; tmpfs makes them cheap.
if [ -z "${TMPDIR:-}" ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi
parallel=()
[ "$workers" -le 1 ] || parallel=(-jobs="$workers" -workers="$workers" -reload=1)
"$build/tests/fuzz/ostra_fuzz_job" -max_total_time="$seconds" -print_final_stats=1 \
  -timeout=20 -malloc_limit_mb=8192 -close_fd_mask=2 -dict=tests/fuzz/raster.dict \
  -artifact_prefix="$build/" "${parallel[@]}" "$corpus" tests/fuzz/corpus
