#!/bin/sh
# Fails when the stencil chain's objects call a C math library routine or its
# sources include a math header: its printed results depend on its own math.
#   check_no_libm.sh SOURCE_DIR OBJECT...
set -eu
src=$1
shift
routines='sqrt|exp|exp2|expm1|log|log2|log10|log1p|pow|round|lround|llround|rint|lrint|nearbyint|floor|ceil|trunc|fabs|fma|cbrt|hypot'
found=$(nm -u "$@" | grep -E "^ *U (__)?(${routines})(f|l)?(@.*)?$" || true)
if [ -n "$found" ]; then
  echo "C math routines referenced by the stencil chain:"
  echo "$found"
  exit 1
fi
headers=$(grep -n -E '#include[[:space:]]*<(cmath|math\.h|tgmath\.h|cfenv)>' "$src"/enhance/* || true)
if [ -n "$headers" ]; then
  echo "math headers included by the stencil chain:"
  echo "$headers"
  exit 1
fi
echo "no C math routine in $# objects of enhance/"
