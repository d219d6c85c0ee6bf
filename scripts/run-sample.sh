#!/usr/bin/env bash
# The main job: turns the bundled sample PDF into CUPS raster with CUPS's own
# filter chain and the shipped PPD, runs rastertoostra on it as CUPS would
# (in a private mount namespace, so the real /tmp and spool stay untouched),
# shows what the filter made of the job and renders every page record it wrote
# as a PNG of the dots the printer will print. Everything lands in out/.
set -euo pipefail
cd "$(dirname "$0")/.."
sh scripts/check-place.sh "$PWD"

bash scripts/setup.sh
build=$(bash scripts/build.sh plain | tail -n 1)

out=$PWD/out
rm -rf "$out"
mkdir -p "$out"
options=${OSTRA_OPTIONS:-}

echo "== CUPS: samples/sample.pdf -> 8-bit raster with ppd/ostra.ppd ${options:+(options: $options)}"
cupsfilter -p ppd/ostra.ppd -m application/vnd.cups-raster ${options:+-o "$options"} \
  samples/sample.pdf >"$out/sample.ras" 2>"$out/cupsfilter.log"

echo "== rastertoostra 1 ${USER:-root} sample 1 '$options' out/sample.ras"
set +e
PPD=$PWD/ppd/ostra.ppd PRINTER=ostra-sample \
  tests/support/sandbox.sh "$out/sandbox" "$build/rastertoostra" 1 "${USER:-root}" sample 1 \
  "$options" "$out/sample.ras" >"$out/printer-stream.bin" 2>"$out/filter.log"
status=$?
set -e

echo "-- settings parsed from the PPD and the job options:"
grep -E '^DEBUG:(settings->|Set page size)' "$out/filter.log" | sed 's/^DEBUG:/   /'
echo "-- pages read from the raster stream:"
grep -E '^DEBUG:(PAGE: |header\.cups(Width|Height|BitsPerPixel|ColorSpace):|header\.HWResolution\[0\])' \
  "$out/filter.log" | sed 's/^DEBUG:/   /'
echo "-- last page geometry (/tmp/xxxxx.log):"
sed 's/^/   /' "$out/sandbox/tmp/xxxxx.log" 2>/dev/null || echo "   (none)"
grep -E '^(ERROR|CRIT)' "$out/filter.log" || true
echo "-- print-setting blocks sent to the printer (standard output):"
od -An -tx1 -v "$out/printer-stream.bin" | sed 's/^/  /'
echo "-- page records, as the printer will print them:"
mkdir -p "$out/preview"
records=("$out"/sandbox/spool/otv6data/page_*.dat)
if [ -e "${records[0]}" ]; then
  (cd "$out/sandbox/spool/otv6data" && "$OLDPWD/$build/ostra-preview" -o "$out/preview" page_*.dat) \
    | sed 's/^/   /'
else
  echo "   (none)"
fi
echo "== exit status $status; full log in out/filter.log, previews in out/preview/"
exit "$status"
