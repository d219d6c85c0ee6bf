#!/bin/sh
# Fails when the stencil chain's objects call a C math library routine or its
# sources include a math header: its printed results depend on its own math.
#   check_no_libm.sh SOURCE_DIR OBJECT...
set -eu
src=$1
shift
routines='sqrt|exp|exp2|expm1|log|log2|log10|log1p|pow|round|lround|llround|rint|lrint|nearbyint|floor|ceil|trunc|fabs|fma|cbrt|hypot'
found=$(nm -u "$@" | grep -E "^ *U (__)?(${routines})(f|l)?(@.*)?$" || true)
found=$found$(grep -n -E '#include[[:space:]]*<(cmath|math\.h|tgmath\.h|cfenv)>' "$src"/enhance/* || true)
if [ -n "$found" ]; then
  printf 'C math routines or headers in the stencil chain:\n%s\n' "$found"
  exit 1
fi
