#!/bin/sh
# Refuses, in one line, a directory the filter's private namespace cannot work
# from: /var/spool is replaced inside it. Anywhere else, /tmp included, works.
#   check-place.sh DIR...
for dir in "$@"; do
  case "$(cd "$dir" 2>/dev/null && pwd -P || echo "$dir")/" in
    /var/spool/*)
      echo "rastertoostra: $dir lies under /var/spool, which the test namespace replaces; use a checkout elsewhere" >&2
      exit 2 ;;
  esac
done
