#!/bin/sh
# The printer application as a shop's network meets it: the shipped unit's
# server, run as its own user in a network namespace "shop", and clients on
# that host (user nobody; an admin on the control socket) and on another,
# "phone", a second namespace joined by a veth pair. Anyone may print; adding,
# changing and deleting printers and their defaults needs an admin's login,
# and no client chooses where the server writes. Runs in sandbox.sh's mount
# namespace.
#   app_network.sh BUILD_DIR
set -eu
build=$1 src=$(cd "$(dirname "$0")/../.." && pwd) w=/tmp/app-network
tests=$src/tests/e2e/ipp
mkdir -p $w/out && chmod 1777 $w/out  # clients' pages
. "$src/tests/support/app_service.sh"
fail() { echo "FAIL: $*; the server's log:" && grep -v '^D' $w/app.log; exit 1; }

install -d -o ostra-printer-app $w/dev
! "$build/ostra-printer-app" status 2>/dev/null && [ ! -e /run/ostra-printer-app/*.sock ] ||
  fail "status with no server running"
app_start -o file-device-directory=$w/dev -o log-level=debug
trap 'kill $app_pid || :' EXIT
end=$(($(date +%s) + 30))
until ip netns exec shop curl -so /dev/null http://127.0.0.1:8000/; do
  [ "$(date +%s)" -lt $end ] || fail "the server did not start"
  sleep 0.2
done
[ "$(stat -c %a:%G /run/ostra-printer-app)" = 750:lpadmin ] || fail "socket directory open"
[ "$(stat -c %a /run/ostra-printer-app/ostra-printer-app.sock)" = 660 ] || fail "socket mode"

# CLIENT: where a request comes from; HOST: the server's address there.
local="ip netns exec shop setpriv --reuid=nobody --regid=nogroup --clear-groups"
phone="ip netns exec phone"
ipp() { # CLIENT HOST LOGIN TEST NAME: ipptool's verdict on TEST for printer NAME
  $1 ipptool -q -T 20 -d device=file://$w/dev -d file=$w/doc.png -d id=$id -d name=$5 \
    "ipp://$3$2/ipp/system" "$tests/$4.test"
}
socket() { # USER TEST: TEST over the control socket as USER
  setpriv --reuid=$1 --regid=$1 --init-groups ipptool -q -d id=$id \
    "ipp://%2Frun%2Fostra-printer-app.sock/ipp/system" "$tests/$2.test"
}
web() { # CLIENT BASE LOGIN PATH [FORM]: the page answers 200
  [ "$($1 curl -sk ${3:+-u $3} -o $w/out/page.html -w '%{http_code}' ${5:+--data "$5"} "$2$4")" = 200 ]
}
session() { # CLIENT BASE LOGIN PATH: the session token of the page's form
  web "$1" "$2" "$3" "$4" || fail "no form at $4"
  sed -n 's/.*name="session" value="\([^"]*\)".*/\1/p' $w/out/page.html | head -1
}
form() { # CLIENT BASE PRINTER: the printing defaults form, with its session token
  echo "session=$(session "$1" "$2" boss:boss-pw /$3/printing)\
&halftone-type=tattoo&gap-height=3&brightness=0&barcode-thinning=off"
}
proof_session() { # CLIENT BASE PRINTER: the proof page's session token, to anyone
  session "$1" "$2" "" /$3/proof
}
proof() { # CLIENT BASE LOGIN PRINTER SESSION ACTION CURL-ARGS...: the page answers 200
  pc=$1 pb=$2 pl=$3 pp=$4 ps=$5 pa=$6 && shift 6
  [ "$($pc curl -sk ${pl:+-u $pl} -o $w/out/page.html -w '%{http_code}' -F session="$ps" \
    -F document=@$w/doc.png -F action="$pa" "$@" "$pb/$pp/proof")" = 200 ]
}
upload() { # CLIENT BASE PRINTER SESSION FILE [CURL-ARGS...]: the image is taken for proofs
  uc=$1 ub=$2 up=$3 us=$4 uf=$5 && shift 5
  [ "$($uc curl -sk -o $w/out/upload.txt -w '%{http_code}' --data-binary @"$uf" "$@" \
    "$ub/$up/proof-upload?session=$us")" = 200 ]
}
check() { # WANT LABEL COMMAND...: WANT is allowed or refused
  want=$1 label=$2 && shift 2
  if "$@" >>$w/clients.log 2>&1; then got=allowed; else got=refused; fi
  [ $got = $want ] || fail "$label: $got"
  echo "$label: $got"
}

pdftoppm -png -r 60 -singlefile "$src/samples/sample.pdf" $w/doc
# Uploads of exactly the 64 MB a proof may send, and one byte more.
{ printf '\211PNG\r\n\032\n' && head -c $((64 * 1024 * 1024 - 8)) /dev/zero; } >$w/limit.png
cp $w/limit.png $w/over.png && printf x >>$w/over.png
chmod -R a+rX $w
admin=boss:boss-pw@ state=/var/lib/ostra-printer-app/ostra-printer-app.state
# PAPPL 1.3.1 answers printer-id 0 for a printer made since it started (fixed
# in 1.4.3): each client's printer is known by its place in the order made.
id=0
for client in local phone; do
  eval c=\$$client id=$((id + 1))
  if [ $client = local ]; then host=127.0.0.1:8000; else host=10.231.0.1:8000; fi
  base=https://$host p=$client-printer
  for op in create-printer set-printer; do
    check refused "$client $op without a login" ipp "$c" $host "" $op $p
    check refused "$client $op by joe (no admin)" ipp "$c" $host joe:joe-pw@ $op $p
    check allowed "$client $op by an admin" ipp "$c" $host $admin $op $p
  done
  check refused "$client file device outside the directory" \
    ipp "$c" $host $admin create-printer "$p-2 -d device=file://$state"
  defaults=$(form "$c" $base $p)
  check refused "$client web defaults without a login" web "$c" $base "" /$p/printing "$defaults"
  check allowed "$client web defaults by an admin" web "$c" $base boss:boss-pw /$p/printing \
    "$defaults"
  grep -q "Changes saved" $w/out/page.html || fail "$client: the defaults were not saved"
  check refused "$client add-printer page without a login" \
    web "$c" $base "" /addprinter "printer_name=x&device_uri=file:///var/lib/x"
  check allowed "$client add-printer page by an admin" web "$c" $base boss:boss-pw /addprinter
  check allowed "$client prints without a login" ipp "$c" $host "" print-job $p
  # Its job id: job ids start above those in the page directory's records.
  end=$(($(date +%s) + 60))
  until [ "$(ls /var/spool/cups/tmp/otv6data 2>/dev/null | grep -c '^page_')" = $id ]; do
    [ "$(date +%s)" -lt $end ] || fail "no page record of $client's job"
    sleep 0.2
  done
  job=$(ls /var/spool/cups/tmp/otv6data | sed -n 's/^page_.*_jobid_0*\([0-9]*\)_.*/\1/p' |
    sort -n | tail -1)
  # Whoever may print may proof; Save as default and Last Prints are an admin's.
  session=$(proof_session "$c" $base $p)
  proof "$c" $base "" $p "$session" proof -F media=oe_2x1-label_2x1in && grep -q 'id="proof"' \
    $w/out/page.html || fail "$client: no proof without a login"
  for login in "" joe:joe-pw; do
    check refused "$client proof options as default by '$login'" \
      proof "$c" $base "$login" $p "$session" defaults -F halftone-type=tattoo
    check refused "$client last prints by '$login'" web "$c" $base "$login" /$p/prints
  done
  check allowed "$client proof options as default by an admin" \
    proof "$c" $base boss:boss-pw $p "$session" defaults -F halftone-type=tattoo
  grep -q "now the printer's defaults" $w/out/page.html || fail "$client: proof options not saved"
  check allowed "$client last prints by an admin" web "$c" $base boss:boss-pw /$p/prints
  [ "$(grep -c '<figure' $w/out/page.html)" = 1 ] || fail "$client: last prints"
  check allowed "$client uploads 64 MB for a proof" upload "$c" $base $p "$session" $w/limit.png
  check refused "$client uploads 64 MB and a byte" upload "$c" $base $p "$session" $w/over.png
  check refused "$client uploads 64 MB and a byte, chunked" upload "$c" $base $p "$session" \
    $w/over.png -H 'Transfer-Encoding: chunked'
  check refused "$client uploads with another's session" upload "$c" $base $p x $w/doc.png
  check allowed "$client sees its own job" ipp "$c" $host "" get-job "$p -d job=$job -d who=phone"
  check refused "$client sees another's job" ipp "$c" $host "" get-job "$p -d job=$job -d who=x"
  check refused "$client delete-printer without a login" ipp "$c" $host "" delete-printer $p
done
# An upload that stops half way is answered after 10 s of silence, its place
# among the four at once given back.
session=$(proof_session "$local" https://127.0.0.1:8000 local-printer)
ip netns exec shop timeout 15 bash -c "exec 3<>/dev/tcp/127.0.0.1/8000 &&
  printf 'POST /local-printer/proof-upload?session=$session HTTP/1.1\r\nHost: 127.0.0.1:8000\r\n%b' \
    'Content-Length: 1000\r\n\r\n' >&3 && head -c 100 $w/limit.png >&3 && cat <&3" \
  >$w/out/upload.txt || :
grep -q 'did not arrive whole' $w/out/upload.txt || fail "an upload gone quiet: $(cat $w/out/upload.txt)"

# Deleted while a sheet of ten proofs on the longest roll runs: the proofs
# stop, the deletion waits for them (it holds PAPPL's lock, so not long).
session=$(proof_session "$local" https://127.0.0.1:8000 phone-printer)
started=$(grep -c '\[Job 0\] The PNG image is' $w/app.log || :)
proof "$local" https://127.0.0.1:8000 "" phone-printer "$session" sheet -F media=custom \
  -F roll-width=215 -F roll-length=2540 &
sheet=$!
end=$(($(date +%s) + 30))
until [ "$(grep -c '\[Job 0\] The PNG image is' $w/app.log)" -gt "$started" ]; do
  [ "$(date +%s)" -lt $end ] || fail "the sheet of proofs did not start"
  sleep 0.1
done
check allowed "the command line deletes a printer made since start, proofs running" \
  timeout 60 "$build/ostra-printer-app" delete -d phone-printer
wait $sheet || :
grep -q 'Proofs stopped: the printer is being deleted' $w/app.log ||
  fail "the proofs were not running when their printer was deleted"

# The phone's job printed with the default set through the web page, its
# record in the page directory it shares with the filter.
end=$(($(date +%s) + 60))
until [ "$(ls /var/spool/cups/tmp/otv6data 2>/dev/null | grep -c '^page_')" = 2 ]; do
  [ "$(date +%s)" -lt $end ] || fail "page records: $(ls -l /var/spool/cups/tmp/otv6data)"
  sleep 0.2
done
[ "$(grep -v '\[Job 0\]' $w/app.log | grep -c 'RV dithering is enabled')" = 2 ] || fail "the web default was not used"
[ "$(stat -c %a:%U /var/lib/ostra-printer-app/.cups/ssl/*.key)" = 600:ostra-printer-app ] ||
  fail "TLS key: $(ls -l /var/lib/ostra-printer-app/.cups/ssl)"
"$build/ostra-preview" -o $w /var/spool/cups/tmp/otv6data/page_*.dat >/dev/null ||
  fail "page records refused"
kill -0 $app_pid || fail "the server is gone"

# Started again, the server still shows the local printer's last print; then
# the control socket deletes it.
kill $app_pid && wait $app_pid || :
app_start -o file-device-directory=$w/dev -o log-level=debug
end=$(($(date +%s) + 30))
until ip netns exec shop curl -so /dev/null http://127.0.0.1:8000/; do
  [ "$(date +%s)" -lt $end ] || fail "the server did not start again"
  sleep 0.2
done
web "$local" https://127.0.0.1:8000 boss:boss-pw /local-printer/prints &&
  [ "$(grep -c '<figure' $w/out/page.html)" = 1 ] || fail "no last print after a restart"
id=1
check refused "control socket as joe" socket joe delete-printer
check allowed "control socket as boss (lpadmin)" socket boss delete-printer
kill -0 $app_pid || fail "the server is gone"
