#!/usr/bin/env bash
# Non-blank, non-comment lines of the C/C++ (and Python) sources: the tests
# (tests/) against the code they test (AKUDoa/, tools/ and the Python
# module in python/), and the ratio.
#   scripts/count-lines.sh        totals
#   scripts/count-lines.sh -v     also one line per folder
# A line holding only a comment, a preprocessor comment line ("# text") or
# whitespace does not count; a line with code and a trailing comment does.
set -euo pipefail
cd "$(dirname "$0")/.."

count() {
  find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.py' \) -print0 2>/dev/null |
    xargs -0 -r cat | sed -e 's://.*$::' -e 's:^\s*#\s.*$::' | awk '
      { line=$0
        if (inblock) { if (index(line,"*/")) { line=substr(line,index(line,"*/")+2); inblock=0 } else next }
        while (index(line,"/*")) { pre=substr(line,1,index(line,"/*")-1); rest=substr(line,index(line,"/*")+2)
          if (index(rest,"*/")) line=pre substr(rest,index(rest,"*/")+2); else { line=pre; inblock=1 } }
        if (line ~ /[^ \t]/) n++ }
      END { print n+0 }'
}

if [ "${1:-}" = -v ]; then
  for d in AKUDoa/base AKUDoa/iir tools python tests/base tests/iir tests/akudoa tests/tools tests/support tests/crossbuild tests/install tests/python tests/fuzz; do
    [ -d "$d" ] && printf '%-18s %6d\n' "$d" "$(count "$d")"
  done
  printf '%-18s %6d\n' "AKUDoa (top)" "$(count AKUDoa -maxdepth 1)"
fi
code=$(count AKUDoa tools python)
tests=$(count tests)
echo "code $code tests $tests ratio $(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", t / c }')"
