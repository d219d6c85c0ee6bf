#!/usr/bin/env bash
# Configures and builds one variant: "plain" into build/, "sanitize" (ASan and
# UBSan) into build-sanitize/, "minimal" (the filter as a packager may build it:
# no libpng, no Google Benchmark, no PAPPL, no tests, warnings not fatal) into
# build-minimal/. Prints the build directory on its last line.
set -euo pipefail
cd "$(dirname "$0")/.."

variant=${1:-plain}
case "$variant" in
  plain) dir=build; flags=() ;;
  sanitize) dir=build-sanitize; flags=(-DOSTRA_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug) ;;
  minimal) dir=build-minimal; flags=(-DCMAKE_DISABLE_FIND_PACKAGE_PNG=ON
    -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON -DOSTRA_BUILD_APP=OFF -DOSTRA_BUILD_TESTS=OFF
    -DOSTRA_WERROR=OFF) ;;
  *) echo "usage: build.sh [plain|sanitize|minimal]" >&2; exit 2 ;;
esac

cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
cmake --build "$dir" --parallel "$(nproc)" >&2
echo "$dir"
