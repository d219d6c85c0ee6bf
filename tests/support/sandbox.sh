#!/bin/sh
# Runs a command with private, empty /tmp and /var/spool/cups/tmp, so that a
# filter run never touches the machine's real ones, then copies what the
# command left there into OUTDIR/tmp and OUTDIR/spool. Standard input, output
# and error pass through; the exit status is the command's, and it is also
# written to OUTDIR/status, which is missing when the sandbox itself failed.
#
#   sandbox.sh OUTDIR command [args...]
#
# OUTDIR and every input file must lie outside /tmp, which is hidden inside.
set -eu
if [ "$#" -lt 2 ]; then
  echo "usage: sandbox.sh OUTDIR command [args...]" >&2
  exit 2
fi
exec unshare -m --propagation private /bin/sh -c '
  set -eu
  out=$1; shift
  rm -f "$out/status"
  mount -t tmpfs -o mode=1777 ostra-tmp /tmp
  # Hide the real spool tree first, so the mount point is made inside tmpfs.
  mount -t tmpfs -o mode=0755 ostra-spool /var/spool
  mkdir -p /var/spool/cups/tmp
  mount -t tmpfs -o mode=1777 ostra-cups-tmp /var/spool/cups/tmp
  set +e
  "$@"
  rc=$?
  set -e
  mkdir -p "$out/tmp" "$out/spool"
  cp -a /tmp/. "$out/tmp/"
  cp -a /var/spool/cups/tmp/. "$out/spool/"
  echo "$rc" > "$out/status"
  exit "$rc"
' sandbox "$@"
