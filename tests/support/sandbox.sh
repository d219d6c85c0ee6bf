#!/bin/sh
# Runs a command with private, empty /tmp and /var/spool/cups/tmp, so that a
# filter run never touches the machine's real ones, then copies what the
# command left there into OUTDIR/tmp and OUTDIR/spool. Standard input, output
# and error pass through; the exit status is the command's, and it is also
# written to OUTDIR/status, which is missing when the sandbox itself failed.
# The checkout and OUTDIR keep their own paths inside, even under /tmp.
#
#   sandbox.sh OUTDIR command [args...]
set -eu
[ "$#" -ge 2 ] || { echo "usage: sandbox.sh OUTDIR command [args...]" >&2; exit 2; }
root=$(cd "$(dirname "$0")/../.." && pwd -P)
mkdir -p "$1"
out=$(cd "$1" && pwd -P)
shift
sh "$root/scripts/check-place.sh" "$root" "$out"
exec unshare -m --propagation private /bin/sh -c '
  set -eu
  root=$1 out=$2
  shift 2
  rm -rf "$out/status" "$out/tmp" "$out/spool"
  exec 8<"$root" 9<"$out"
  mount -t tmpfs -o mode=1777 ostra-tmp /tmp
  # Hide the real spool tree first, so the mount point is made inside tmpfs.
  mount -t tmpfs -o mode=0755 ostra-spool /var/spool
  mkdir -p /var/spool/cups/tmp
  mount -t tmpfs -o mode=1777 ostra-cups-tmp /var/spool/cups/tmp
  # A checkout or output folder under /tmp comes back at its own path through
  # the descriptor opened before /tmp was hidden; its top name is not copied out.
  keep=" "
  bindBack() {
    case "$2/" in /tmp/*) ;; *) return 0 ;; esac
    mkdir -p "$2"
    mount --no-canonicalize --bind "/proc/self/fd/$1" "$2"
    top=${2#/tmp/}
    keep="$keep${top%%/*} "
  }
  bindBack 8 "$root"
  case "$out/" in "$root"/*) ;; *) bindBack 9 "$out" ;; esac
  set +e
  "$@" 8<&- 9<&-
  rc=$?
  set -e
  mkdir -p "$out/tmp" "$out/spool"
  for f in /tmp/* /tmp/.[!.]*; do
    case "$keep" in *" ${f#/tmp/} "*) continue ;; esac
    [ ! -e "$f" ] || cp -a "$f" "$out/tmp/"
  done
  cp -a /var/spool/cups/tmp/. "$out/spool/"
  echo "$rc" > "$out/status"
  exit "$rc"
' sandbox "$root" "$out" "$@"
