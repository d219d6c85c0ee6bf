#!/bin/sh
# The installed driver under a real cupsd that reads and writes only tmpfs of
# sandbox.sh's private namespace: queue, jobs, debug image ageing, uninstall,
# cancel; then the printer application behind the same cupsd, on another
# host (network namespaces made by app_service.sh).
#   cupsd_job.sh BUILD_DIR CUPS_SERVERBIN CUPS_DATADIR TMPFILES_DIR
set -eu
build=$1 filters=$2/filter models=$3/model tmpfiles=$4
src=$(cd "$(dirname "$0")/../.." && pwd) && doc=$src/samples/sample.pdf
w=/tmp/cupsd stage=/tmp/cupsd/stage sock=/tmp/cupsd/sock records=/var/spool/cups/tmp/otv6data
mount -t tmpfs -o mode=0755 ostra-run /run  # cupsd's default place for its state
mkdir -p $w/etc $w/spool/tmp $w/state $w/cache $w/log $w/out
fail() { echo "FAIL: $*; error_log without debug lines:" && grep -v '^D' $w/log/error_log; exit 1; }
# Waits up to a minute for CONDITION; a stopped queue or job fails at once.
poll() {
  end=$(($(date +%s) + 60)) && until eval "$1"; do
    ! lpstat -h $sock -p ostra 2>/dev/null | grep -q disabled || fail "queue stopped"
    ! grep -q '\] Job stopped' $w/log/error_log 2>/dev/null || fail "job stopped"
    [ "$(date +%s)" -lt $end ] || fail "waited a minute for $1"
    sleep 0.1
  done
}

DESTDIR=$stage cmake --install "$build" --prefix /usr >/dev/null
[ "$(stat -c %a "$stage$filters/rastertoostra")" = 755 ] || fail "filter mode is not 0755"
# cupsd sees its filter and model directories with the staged files added.
for dir in "$filters" "$models"; do
  mkdir -p "$w/view$dir" && cp -a "$dir/." "$stage$dir/." "$w/view$dir/"
  chmod 755 "$w/view$dir" && mount --bind "$w/view$dir" "$dir"
done
# A Unix socket only, no authentication, every log line kept; filters run as
# lp. libcups leaks on the print-color-mode cupsd adds to every job: a
# sanitized filter must not fail its job for that.
printf '%s\n' "Listen $sock" "LogLevel debug" "MaxLogSize 0" "Browsing No" \
  "<Policy default>" "<Limit All>" "Order deny,allow" "</Limit>" "</Policy>" >$w/etc/cupsd.conf
printf '%s\n' "User lp" "Group lp" "SystemGroup root" "FileDevice Yes" "ServerRoot $w/etc" \
  "RequestRoot $w/spool" "TempDir $w/spool/tmp" "StateDir $w/state" "CacheDir $w/cache" \
  "ErrorLog $w/log/error_log" "AccessLog $w/log/access_log" "PageLog $w/log/page_log" \
  "Printcap $w/state/printcap" "SetEnv ASAN_OPTIONS detect_leaks=0" >$w/etc/cups-files.conf
[ ! -x "$build/ostra-printer-app" ] || . "$src/tests/support/app_service.sh"
ip netns exec phone cupsd -f -c $w/etc/cupsd.conf -s $w/etc/cups-files.conf &
cupsd=$!
trap 'kill $cupsd && wait $cupsd || :' EXIT
poll "[ -S $sock ] || ! kill -0 $cupsd"
kill -0 $cupsd || fail "cupsd exited (it says why only to syslog)"

model=$(lpinfo -h $sock -m | grep -o '^[^ ]*kiwa/ostra\.ppd') || fail "lpinfo -m lacks the PPD"
lpadmin -h $sock -p ostra -E -v file://$w/out/device -m "$model"
submit() { lp -h $sock -d ostra "$@" | sed -n 's/^request id is ostra-\([0-9]*\) .*/\1/p'; }
idle() { poll '[ -z "$(lpstat -h $sock -o ostra)" ]'; }
count() { ls $records | grep -c "^page_...._jobid_$(printf %06d "$1")_" || :; }
preview() { (cd $records && "$build/ostra-preview" -o $w/out page_*.dat >/dev/null); }

pdftoppm -png -r 100 -singlefile "$doc" $w/page
a=$(submit -o HalftoneType=Tattoo -o MirrorImage=True -o Darkness=Dark "$doc")
b=$(submit -n 2 -o HalftoneType=Burkes $w/page.png)
idle
[ "$(grep -c "\[Job \($a\|$b\)\] Job completed" $w/log/error_log)" = 2 ] || fail "jobs did not complete"
[ "$(stat -c %s $w/out/device)" = 14 ] || fail "the device did not get one 7-byte block per page of the last job"
# CUPS makes the copies: the filter gets the page twice.
[ "$(count $a) $(count $b)" = "2 2" ] || fail "page records: $(ls $records)"
preview || fail "ostra-preview refused a page record"

# Old debug pictures go; page records, the counter and other files stay.
touch -d '8 days ago' /var/spool/cups/tmp/origin_notes.txt /var/spool/cups/tmp/*.bmp $records/*
kept=$(ls -AR /var/spool/cups/tmp | grep -v '\.bmp$')
systemd-tmpfiles --clean "$stage$tmpfiles/rastertoostra.conf"
[ "$(ls -AR /var/spool/cups/tmp)" = "$kept" ] || fail "tmpfiles: $(ls -AR /var/spool/cups/tmp)"

DESTDIR=$stage cmake --build "$build" --target uninstall >/dev/null
[ -z "$(find $stage ! -type d)" ] || fail "uninstall left $(find $stage ! -type d)"

# Cancelled once its first record is out: whole records only, no temporary
# file left, and the page counter stored.
before=$(od -An -tu2 $records/ostra.pgc)
c=$(submit -n 30 -o HalftoneType=Tattoo -o Resolution=300dpi "$doc")
poll '[ "$(count $c)" -gt 0 ]'
cancel -h $sock ostra-$c
idle  # cupsd forgets the job at once; the filter still finishes the page in hand
poll '! cat /proc/[0-9]*/comm 2>/dev/null | grep -q rastertoostra'
preview || fail "a page record was left half-written"
[ -z "$(ls -A $records | grep '^\.')" ] || fail "temporary files left: $(ls -A $records)"
after=$(od -An -tu2 $records/ostra.pgc)
[ $after -gt $before ] || fail "page counter $before before the cancelled job, $after after it"

# The printer application on the shop's host, run as its unit runs it: a
# "Stencils" printer whose default halftone is the tattoo stencil (through
# CUPS only media, media type and quality travel with a job), a queue made
# with "lpadmin -m everywhere" on the phone's host, and a real PDF printed to
# it: over the network, so PAPPL has the client switch to TLS first.
[ -x "$build/ostra-printer-app" ] || exit 0
app=$build/ostra-printer-app pages=$w/pages state=/var/lib/ostra-printer-app/ostra-printer-app.state
install -d -o ostra-printer-app $pages && chmod 1777 $w/out
# Under ASan, leaks at exit are PAPPL's (its command line and server): the
# in-process tests check the application's own.
export ASAN_OPTIONS=detect_leaks=0
app_start -o page-directory=$pages -o log-level=debug -o file-device-directory=$w/out
trap 'kill $cupsd $app_pid && wait $cupsd || :' EXIT
poll '"$app" status 2>/dev/null | grep -q Running && grep -q "on .\*:8000" $w/app.log'
"$app" add -d stencils -m ostra_203 -v file://$w/out
"$app" modify -d stencils -o halftone-type-default=tattoo -o print-speed-default=6in
lpadmin -h $sock -p stencils -E -v ipp://10.231.0.1:8000/ipp/print/stencils -m everywhere
poll 'grep -qs cupsFilter2 $w/etc/ppd/stencils.ppd'  # cupsd makes the PPD after lpadmin returns
lp -h $sock -d stencils "$doc" >/dev/null
poll '[ "$(ls $pages 2>/dev/null | grep -c "^page_")" = 2 ]'
(cd $pages && "$build/ostra-preview" -o $w/out page_*.dat >/dev/null) || fail "app records refused"
grep -q 'RV dithering is enabled' $w/app.log || fail "the printer's default halftone was not used"
grep -q 'halftone-type-default tattoo' $state || fail "the printer's default was not saved"
grep -q 'print-speed-default 15240' $state || fail "the printer's speed was not saved"
od -An -tx1 -N7 $w/out/sample.pdf.prn | grep -q '1b 73 01 00 00 04 01' || fail "speed 6 not sent"
grep -q 'Connection now encrypted' $w/app.log || fail "the queue did not switch to TLS"
