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

echo "== minimal build (no libpng, no Google Benchmark, no PAPPL)"
dir=$(bash scripts/build.sh minimal | tail -n 1)
test -x "$dir/rastertoostra" && test ! -e "$dir/ostra-preview" && test ! -e "$dir/ostra-printer-app"

# The application's stress test runs 50 rounds; CI asks for more under the
# sanitizers (OSTRA_SANITIZE_STRESS_ROUNDS).
for variant in plain sanitize; do
  rounds=50
  [ "$variant" = plain ] || rounds=${OSTRA_SANITIZE_STRESS_ROUNDS:-50}
  export OSTRA_STRESS_ROUNDS=$rounds
  echo "== $variant build"
  dir=$(bash scripts/build.sh "$variant" | tail -n 1)
  echo "== $variant tests"
  ctest --test-dir "$dir" --output-on-failure --parallel "$(nproc)"
done

echo "== static analysis"
bash scripts/analyze.sh

# A minute of libFuzzer on the whole job.
echo "== fuzzing the job for a minute (clang, libFuzzer)"
bash scripts/fuzz.sh 60
