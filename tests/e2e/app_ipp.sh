#!/bin/sh
# The printer application against CUPS's own IPP test files (IPP/1.1, IPP/2.0
# and IPP Everywhere, with sample pages made here by Ghostscript), then ROUNDS
# rounds of Print-Job / Cancel-Job / Print-Job from two clients at once, PNG
# and streamed PWG, on a queue of 10: the server answers throughout, every job
# ends, no page record is half written, and a sanitizer build reports nothing.
# On loopback, in sandbox.sh's mount namespace.
#   app_ipp.sh BUILD_DIR [ROUNDS]
set -eu
build=$1 rounds=${2:-${OSTRA_STRESS_ROUNDS:-50}} src=$(cd "$(dirname "$0")/../.." && pwd) w=/tmp/app-ipp
port=18631 uri=ipp://127.0.0.1:18631/ipp/print/ostra queue=10
mountpoint -q /run || mount -t tmpfs -o mode=0755 ostra-run /run
mkdir -p $w/dev $w/tests
fail() { echo "FAIL: $*; the server's log:" && grep -v '^[DI]' $w/log | tail -40; cat $w/stderr; exit 1; }

start() {
  "$build/ostra-printer-app" server -o server-port=$port -o listen-hostname=127.0.0.1 \
    -o log-file=$w/log -o log-level=info -o state-file=$w/state -o spool-directory=$w/spool \
    -o page-directory=$w/pages -o file-device-directory=$w/dev -o max-active-jobs=$queue \
    2>>$w/stderr &
  pid=$!
  end=$(($(date +%s) + 30))
  until curl -so /dev/null http://127.0.0.1:$port/; do
    [ "$(date +%s)" -lt $end ] || fail "the server did not start"
    sleep 0.2
  done
}
start
# Gone before the sandbox copies /tmp out: no file may change under the copy.
trap 'kill -9 $pid 2>/dev/null; wait $pid 2>/dev/null || :' EXIT
"$build/ostra-printer-app" add -d ostra -m ostra_300 -v file://$w/dev

# The files look for their documents beside themselves and stop at one that
# is missing, even when its test is skipped: those this printer cannot take
# are there empty, the 300 dpi gray and black pages are made.
cp /usr/share/cups/ipptool/ipp-1.1.test /usr/share/cups/ipptool/ipp-2.0.test \
  /usr/share/cups/ipptool/ipp-everywhere.test $w/tests
(cd $w/tests && sed -n 's/^[[:space:]]*FILE[[:space:]]\+\([^$][^[:space:]]*\).*/\1/p' ./*.test |
  sort -u | while read -r f; do mkdir -p "$(dirname "$f")" && : >"$f"; done)
for type in sgray-8:18:8 black-1:3:1; do
  d=$w/tests/pwg-raster-samples-300dpi/${type%%:*} && mkdir -p $d
  set -- $(echo "$type" | tr : ' ')
  for name in color.jpg-4x6 gray.jpg-4x6 document-a4 document-letter onepage-a4 onepage-letter; do
    case $name in *4x6) size="-dDEVICEWIDTHPOINTS=288 -dDEVICEHEIGHTPOINTS=432 -dPDFFitPage" ;;
      *a4) size=-sPAPERSIZE=a4 ;; *) size=-sPAPERSIZE=letter ;; esac
    case $name in onepage*) pages="-dFirstPage=1 -dLastPage=1" ;; *) pages="" ;; esac
    gs -q -dBATCH -dNOPAUSE -dSAFER -sDEVICE=pwgraster -r300 -dcupsColorSpace=$2 \
      -dcupsBitsPerColor=$3 $size -dFIXEDMEDIA $pages -o "$d/$name-$1-300dpi.pwg" \
      "$src/samples/sample.pdf" >/dev/null
  done
done
pdftoppm -jpeg -r 60 -singlefile "$src/samples/sample.pdf" $w/tests/color
pdftoppm -jpeg -gray -r 60 -singlefile "$src/samples/sample.pdf" $w/tests/gray
cp $w/tests/color.jpg $w/doc.jpg
pdftoppm -png -r 60 -singlefile "$src/samples/sample.pdf" $w/doc
# What CUPS's files expect and PAPPL 1.3.1 answers otherwise (README.md,
# "IPP conformance").
known='orientation-requested-default\|SAME-COUNT-AS uri-\|overrides-supported'
for t in ipp-1.1 ipp-2.0 ipp-everywhere; do
  ipptool -I -t -T 30 -f $w/doc.jpg "$uri" $w/tests/$t.test >$w/$t.log 2>&1 || :
  failed=$(grep -c '\[FAIL\]' $w/$t.log || :)
  unknown=$(awk '/\[FAIL\]/ { f = 1; next } /^    [^ ]/ { f = 0 } f && /EXPECTED:/' $w/$t.log |
    grep -v "$known" || :)
  echo "$t: $(grep -c '\[PASS\]' $w/$t.log) passed, $failed failed"
  [ -z "$unknown" ] || { echo "$unknown"; fail "$t"; }
done

# Answer and memory stay the same size over many Get-Printer-Attributes (the
# answer once grew by 42 bytes a request).
size() { ipptool -tv "$uri" "$src/tests/e2e/ipp/get-printer-attributes.test" |
  sed -n 's/.*RECEIVED: \([0-9]*\) bytes.*/\1/p'; }
rss() { awk '/^VmRSS:/ { print $2 }' /proc/$pid/status; }
size0=$(size) rss0=$(rss) asks=$((10 * rounds > 2000 ? 2000 : 10 * rounds))
ipptool -q -i 0.001 -n $asks "$uri" "$src/tests/e2e/ipp/get-printer-attributes.test" ||
  fail "Get-Printer-Attributes failed"
size1=$(size) rss1=$(rss)
echo "Get-Printer-Attributes x $asks: answer $size0 -> $size1 bytes, RSS $rss0 -> $rss1 kB"
[ "$size1" = "$size0" ] || fail "the answer grew"
# AddressSanitizer holds freed memory back for a while: its build is not measured.
ldd "$build/ostra-printer-app" | grep -q libasan || [ "$rss1" -lt $((rss0 + 4096)) ] ||
  fail "memory grew"

# The queue takes its tenth job and refuses the eleventh.
ids=$(ipptool -tv -i 0.001 -n $queue "$uri" "$src/tests/e2e/ipp/create-job.test" |
  sed -n 's/.*job-id (integer) = \([1-9][0-9]*\).*/\1/p')
[ "$(echo "$ids" | wc -w)" -eq $queue ] || fail "the queue did not take $queue jobs"
ipptool -q -d full=1 "$uri" "$src/tests/e2e/ipp/create-job.test" || fail "the full queue took a job"
for id in $ids; do
  ipptool -q -d cancel="$id" "$uri" "$src/tests/e2e/ipp/create-job.test" || fail "Cancel-Job $id"
done

# Print-Job, Cancel-Job on it at once, Print-Job: two clients, PNG and PWG,
# on 2 x 1 in labels (the races are in starting and ending jobs, not pages).
# A round that hangs fails the test (ipptool waits for as long as its
# request's bytes are unsent).
pwg=$w/label.pwg
records() { ls $w/pages | grep -c '^page_' || :; }
before=$(records)
gs -q -dBATCH -dNOPAUSE -dSAFER -sDEVICE=pwgraster -r300 -dcupsColorSpace=18 \
  -dcupsBitsPerColor=8 -dDEVICEWIDTHPOINTS=144 -dDEVICEHEIGHTPOINTS=72 -dPDFFitPage -dFIXEDMEDIA \
  -dFirstPage=1 -dLastPage=1 -o $pwg "$src/samples/sample.pdf" >/dev/null
for client in png:image/png:$w/doc.png pwg:image/pwg-raster:$pwg; do
  set -- $(echo "$client" | tr : ' ')
  (for i in $(seq "$rounds"); do
    timeout 300 ipptool -R -t -T 30 -d format=$2 -d file=$3 -d media=oe_2x1-label_2x1in "$uri" \
      "$src/tests/e2e/ipp/print-cancel-print.test" ||
      exit 1
  done) >$w/$1.log 2>&1 &
  eval "client_$1=\$!"
done
# shellcheck disable=SC2154 # set by the eval above
wait $client_png && wait $client_pwg ||
  { grep -h -A6 '\[FAIL\]' $w/png.log $w/pwg.log | head -40; fail "a client's request failed"; }
kill -0 $pid 2>/dev/null || fail "the server is gone"

# Every job ends: 2 x 2 x ROUNDS sent, one in two cancelled.
end=$(($(date +%s) + 120))
until ipptool -q -T 10 "$uri" "$src/tests/e2e/ipp/get-jobs.test"; do
  [ "$(date +%s)" -lt $end ] || fail "jobs left unfinished"
  sleep 1
done
# One page each: the records count the jobs printed (the log is rotated).
completed=$(($(records) - before))
[ "$completed" -ge "$rounds" ] || fail "only $completed jobs printed"
kill -0 $pid 2>/dev/null || fail "the server is gone"
mkdir $w/preview
"$build/ostra-preview" -o $w/preview $w/pages/page_*.dat >/dev/null || fail "a bad page record"

# Killed after the second of twenty pages, and started again: the job is
# aborted with its pages (but perhaps the last, when the kill fell between its
# record and the save after it), the counter they moved is on disk, and the
# next job takes a new id and new record names.
id=$(ipptool -tv -d copies=20 -d format=image/png -d file=$w/doc.png "$uri" \
  "$src/tests/e2e/ipp/print-copies.test" | sed -n 's/.*job-id (integer) = \([0-9]*\).*/\1/p')
[ -n "$id" ] || fail "no job for twenty copies"
job=$(printf %06d "$id")
end=$(($(date +%s) + 60))
until [ "$(ls $w/pages | grep -c "_jobid_${job}_")" -ge 2 ]; do
  [ "$(date +%s)" -lt $end ] || fail "the twenty copies did not start"
  sleep 0.05
done
kill -9 $pid && wait $pid 2>/dev/null || :
printed=$(ls $w/pages | grep -c "_jobid_${job}_")
last=$(ls $w/pages | sed -n "s/^page_\([0-9]*\)_jobid_${job}_.*/\1/p" | sort -n | tail -1)
ls $w/pages >$w/before-restart
start
ipptool -t -d job=$id -d state=8 -d after=$((printed - 2)) "$uri" \
  "$src/tests/e2e/ipp/get-job-state.test" >$w/restart.log ||
  { grep -A12 FAIL $w/restart.log; fail "job $id after the restart"; }
counter=$(od -An -tu2 $w/pages/ostra.pgc | tr -d ' ')
[ "$counter" -eq "$(expr "$last" + 1)" ] || fail "counter $counter after page $last"
next=$(ipptool -tv -d copies=1 -d format=image/png -d file=$w/doc.png "$uri" \
  "$src/tests/e2e/ipp/print-copies.test" | sed -n 's/.*job-id (integer) = \([0-9]*\).*/\1/p')
[ "$next" -gt "$id" ] || fail "job id $next after $id"
end=$(($(date +%s) + 60))
until ipptool -q -T 10 "$uri" "$src/tests/e2e/ipp/get-jobs.test"; do
  [ "$(date +%s)" -lt $end ] || fail "job $next did not end"
  sleep 0.2
done
ls $w/pages | grep "_jobid_$(printf %06d "$next")_" | grep -qvxFf $w/before-restart ||
  fail "job $next left no new record"
echo "killed after $printed of 20 pages: job $id aborted, counter $counter, next job $next"
! grep -q 'Sanitizer\|runtime error' $w/stderr || fail "a sanitizer report"
echo "$rounds rounds from two clients: $completed jobs printed in all, the server still answers"
