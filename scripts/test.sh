#!/usr/bin/env bash
# Sets up the machine, builds the project twice (plain, and with
# AddressSanitizer + UndefinedBehaviorSanitizer), and runs every test in both;
# first it proves the filter builds without the optional libraries, last it
# runs the static analysers (scripts/analyze.sh) and fuzzes the whole job for
# a minute.
# The end-to-end tests need root: they run the filter in a private mount
# namespace (unshare -m) so the real /tmp and spool directories are untouched.
set -euo pipefail
cd "$(dirname "$0")/.."
sh scripts/check-place.sh "$PWD"

bash scripts/setup.sh

echo "== formatting"
files=$(git ls-files '*.cpp' '*.h')
clang-format --dry-run --Werror $files

echo "== minimal build (no libpng, no Google Benchmark)"
dir=$(bash scripts/build.sh minimal | tail -n 1)
test -x "$dir/rastertoostra" && test ! -e "$dir/ostra-preview"

for variant in plain sanitize; do
  echo "== $variant build"
  dir=$(bash scripts/build.sh "$variant" | tail -n 1)
  echo "== $variant tests"
  ctest --test-dir "$dir" --output-on-failure --parallel "$(nproc)"
done

echo "== static analysis"
bash scripts/analyze.sh

# A minute of libFuzzer on the whole job; any crash, sanitizer report, leak or
# timeout fails the run and leaves the input in build-fuzz/.
echo "== fuzzing the job for a minute (clang, libFuzzer)"
CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DOSTRA_FUZZ=ON >/dev/null
cmake --build build-fuzz --target ostra_fuzz_job --parallel "$(nproc)" >&2
corpus=$(mktemp -d)
LSAN_OPTIONS=suppressions=tests/fuzz/lsan.supp build-fuzz/tests/fuzz/ostra_fuzz_job -max_total_time=60 -timeout=20 -malloc_limit_mb=8192 \
  -close_fd_mask=2 -dict=tests/fuzz/raster.dict -artifact_prefix=build-fuzz/ \
  "$corpus" tests/fuzz/corpus
rm -rf "$corpus"
