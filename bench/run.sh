#!/usr/bin/env bash
# Times whole jobs: the filter against the I/O floor (bench/io_floor.cpp) on
# the same raster, side by side in interleaved rounds. The rasters are made by
# CUPS with the shipped PPD from a document (samples/sample.pdf) and a photo
# (the public-domain astronaut portrait in Debian's python3-skimage package,
# fetched once with apt-get download): one A4 page at 300 dpi and one 4 x 6 in
# label at 203 dpi of each, and ten A4 pages of the document. Prints the
# median wall and CPU (user + system) time of each, the wall-time ratio to the
# floor and the peak resident memory, the application's proof page (a proof and
# the sheet of ten, build/ostra_proof_bench), then the stage benchmarks
# (build/ostra_bench) on the A4 photo and the 4 x 6 document. Runs in the
# private namespace of tests/support/sandbox.sh, so the machine's /tmp and
# spool are never touched.
#   bench/run.sh [ROUNDS] [STAGES]    (default 5 rounds; STAGES=0 skips them)
set -euo pipefail
cd "$(dirname "$0")/.."
rounds=${1:-5}
stages=${2:-1}
build=$(cd "$(bash scripts/build.sh plain | tail -n 1)" && pwd)
# The sandbox keeps only its output folder at its own path: everything goes there.
top=$(mktemp -d)
trap 'rm -rf "$top"' EXIT
work=$top/box
mkdir -p "$work"

raster() { # name options pdf
  cupsfilter -p ppd/ostra.ppd -m application/vnd.cups-raster -o "$2" "$3" >"$work/$1.ras" 2>/dev/null
}
photo=$build/bench-inputs/astronaut.png
if [ ! -f "$photo" ]; then
  mkdir -p "$build/bench-inputs/deb"
  (cd "$build/bench-inputs/deb" && apt-get download python3-skimage >/dev/null 2>&1 &&
    dpkg-deb -x python3-skimage_*.deb .)
  cp "$build"/bench-inputs/deb/usr/lib/python3/dist-packages/skimage/data/astronaut.png "$photo"
  rm -rf "$build/bench-inputs/deb"
fi
# CUPS lays the photo out on the page as a PDF first, so the raster is the whole page.
cupsfilter -m application/pdf -o "PageSize=A4 fit-to-page" "$photo" >"$work/photo.pdf" 2>/dev/null
raster a4photo "PageSize=A4 Resolution=300dpi" "$work/photo.pdf"
raster lblphoto "PageSize=w288h432 Resolution=203dpi" "$work/photo.pdf"
# The sample has two pages: the one-page jobs take the first, ten pages are
# five copies.
pdfunite $(printf 'samples/sample.pdf %.0s' $(seq 5)) "$work/ten.pdf"
raster a4 "PageSize=A4 Resolution=300dpi page-ranges=1" samples/sample.pdf
raster label "PageSize=w288h432 Resolution=203dpi page-ranges=1" samples/sample.pdf
raster ten "PageSize=A4 Resolution=300dpi" "$work/ten.pdf"

# One line per run: job, what ran, wall s, user s, system s, peak KB.
PPD=$PWD/ppd/ostra.ppd PRINTER=bench tests/support/sandbox.sh "$work" bash -c '
  set -eu
  build=$1 work=$2 rounds=$3
  run() { # job label command...
    job=$1 what=$2
    shift 2
    rm -rf /var/spool/cups/tmp/* /tmp/xxxxx.log
    mkdir -p /var/spool/cups/tmp/floor
    # bash times to the millisecond; GNU time only reports the peak.
    TIMEFORMAT="%3R %3U %3S"
    { time /usr/bin/time -o /tmp/peak -f %M "$@" >/dev/null 2>&1; } 2>/tmp/t
    echo "$job $what $(cat /tmp/t) $(cat /tmp/peak)" >>"$work/runs"
  }
  for round in $(seq "$rounds"); do
    for job in a4 a4photo label lblphoto ten; do
      methods="None FloydSteinberg StevensonArce Ordered Burkes Tattoo"
      [ "$job" = ten ] && methods=None
      run "$job" floor "$build/ostra_io_floor" "$work/$job.ras" /var/spool/cups/tmp/floor
      for m in $methods; do
        run "$job" "$m" "$build/rastertoostra" 1 bench bench 1 "HalftoneType=$m" "$work/$job.ras"
      done
    done
  done
' sh "$build" "$work" "$rounds"

echo "$rounds rounds, $(nproc) cores, $(date -u +%Y-%m-%d), medians:"
awk '
  { key = $1 " " $2; n[key]++; wall[key, n[key]] = $3; cpu[key, n[key]] = $4 + $5
    if ($6 > peak[key]) peak[key] = $6; if (!(key in seen)) { seen[key] = 1; order[++keys] = key } }
  function median(a, key, m,   i, j, t, v) {
    for (i = 1; i <= m; i++) v[i] = a[key, i]
    for (i = 2; i <= m; i++) for (j = i; j > 1 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
    return m % 2 ? v[(m + 1) / 2] : (v[m / 2] + v[m / 2 + 1]) / 2 }
  END {
    printf "%-8s %-14s %9s %9s %8s %8s\n", "job", "run", "wall ms", "cpu ms", "x floor", "peak MB"
    for (k = 1; k <= keys; k++) {
      key = order[k]; split(key, p, " "); w = median(wall, key, n[key])
      if (p[2] == "floor") floor[p[1]] = w
      printf "%-8s %-14s %9.0f %9.0f %8.2f %8.1f\n", p[1], p[2], 1000 * w, 1000 * median(cpu, key, n[key]),
        (floor[p[1]] > 0 ? w / floor[p[1]] : 0), peak[key] / 1024 }
  }' "$work/runs"

# The application's proof page: one proof of the photo on A4 at 300 dpi (the
# stencil, the slowest halftone) and the sheet of all ten.
if [ -x "$build/ostra_proof_bench" ]; then
  OSTRA_PROOF_IMAGE=$photo "$build/ostra_proof_bench" --benchmark_repetitions=3 \
    --benchmark_report_aggregates_only=true 2>/dev/null |
    awk '/_median/ { sub(/_median/, "", $1); printf "%-58s %10.0f ms\n", $1, $2 }'
fi

if [ "$stages" != 0 ] && [ -x "$build/ostra_bench" ]; then
  OSTRA_BENCH_PAGES="a4photo=$work/a4photo.ras label=$work/label.ras" \
    "$build/ostra_bench" --benchmark_min_time=0.2 --benchmark_format=console 2>/dev/null |
    awk '/^(halftone|stencil|GrayToMono|CalcBlackPoints|saveImage)/ { printf "%-58s %10.1f ms\n", $1, $2 / 1e6 }'
fi
