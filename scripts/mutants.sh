#!/usr/bin/env bash
# Mutation run: applies each named fault from scripts/mutants.txt to a
# scratch copy of the tree, rebuilds incrementally, runs the test programs
# the fault's folder maps to, and says whether the tests caught it.
#
#   scripts/mutants.sh [options] [NAME ...]
#     NAME ...         only these mutants
#     --list FILE      mutant list (default: mutants.txt beside this script)
#     --every K        only every K-th mutant of the list ...
#     --offset I       ... starting with the I-th (0-based; default 0)
#     --sample N       N mutants drawn at random (--seed S fixes the draw)
#     --expect FILE    names of mutants known to survive (one a line, '#'
#                      comments): their survival does not fail the run
#     --tsan           also build a thread-sanitizer tree for the mutants
#                      marked tsan: (otherwise they are skipped)
#     --timeout SEC    per mutant and test program (default 600)
#     --jobs N         build jobs (default: nproc)
#     --scratch DIR    scratch directory (default: a new one under TMPDIR;
#                      an existing one is reused, so builds are incremental)
#     --keep           keep the scratch directory afterwards
#     --names          print the selected mutants' names and stop
#
# Each line prints `killed`, `survived`, `not-applied` (the edit did not
# change exactly one line), `not-built` (the mutant does not compile) or
# `skipped`, then the name and the seconds it took; at the end
# `N killed, M survived`. The exit status is non-zero when a mutant not
# listed in --expect survives, or when a mutant fails to apply or build.
#
# List format, one mutant a line ('#' comments and blank lines ignored):
#   name | file | sed -E expression | tests
# tests: test programs (test_base, test_iir, test_akudoa, test_tools),
# each optionally followed by :GTEST_FILTER; an entry prefixed tsan: runs
# in the thread-sanitizer build. The first field is the name, the second
# the file, the last the tests; the expression is everything between.
set -uo pipefail
{ # Read whole before running: editing this file during a run cannot derail it.

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
list=$here/mutants.txt
every=1 offset=0 sample=0 seed=1 expect="" tsan=0 timeout=600 keep=0 scratch="" only_names=0
jobs=$(nproc)
names=()
while [ $# -gt 0 ]; do
  case "$1" in
    --list) list=$2; shift ;;
    --every) every=$2; shift ;;
    --offset) offset=$2; shift ;;
    --sample) sample=$2; shift ;;
    --seed) seed=$2; shift ;;
    --expect) expect=$2; shift ;;
    --tsan) tsan=1 ;;
    --timeout) timeout=$2; shift ;;
    --jobs) jobs=$2; shift ;;
    --scratch) scratch=$2; shift ;;
    --keep) keep=1 ;;
    --names) only_names=1 ;;
    -h|--help) sed -n '2,/^set /p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "mutants: unknown option $1" >&2; exit 2 ;;
    *) names+=("$1") ;;
  esac
  shift
done
[ -f "$list" ] || { echo "mutants: no list $list" >&2; exit 2; }
[ "$every" -ge 1 ] 2>/dev/null || { echo "mutants: --every needs a positive number" >&2; exit 2; }
list=$(cd "$(dirname "$list")" && pwd)/$(basename "$list")
[ -z "$expect" ] || expect=$(cd "$(dirname "$expect")" && pwd)/$(basename "$expect")

trim() { local s=$1; s=${s#"${s%%[![:space:]]*}"}; printf '%s' "${s%"${s##*[![:space:]]}"}"; }

# Parse the list: name, file, expression, tests (fields split on " | ").
all=()
while IFS= read -r line || [ -n "$line" ]; do
  case "$(trim "$line")" in ''|'#'*) continue ;; esac
  all+=("$line")
done <"$list"

picked=()
for i in "${!all[@]}"; do
  line=${all[$i]}
  name=$(trim "${line%% | *}")
  if [ ${#names[@]} -gt 0 ]; then
    for n in "${names[@]}"; do [ "$n" = "$name" ] && picked+=("$line"); done
  elif [ $(( (i - offset) % every )) -eq 0 ] && [ "$i" -ge "$offset" ]; then
    picked+=("$line")
  fi
done
for n in "${names[@]}"; do
  printf '%s\n' "${picked[@]}" | grep -q "^ *$n |" || { echo "mutants: no mutant named $n" >&2; exit 2; }
done
if [ "$sample" -gt 0 ]; then
  mapfile -t picked < <(printf '%s\n' "${picked[@]}" |
    shuf -n "$sample" --random-source=<(yes "$seed" 2>/dev/null | head -c 65536))
fi
[ ${#picked[@]} -gt 0 ] || { echo "mutants: nothing selected" >&2; exit 2; }
if [ "$only_names" = 1 ]; then
  for line in "${picked[@]}"; do trim "${line%% | *}"; echo; done
  exit 0
fi

# The scratch copy: tracked and untracked (not ignored) files of the tree.
made_scratch=0
if [ -z "$scratch" ]; then
  scratch=$(mktemp -d "${TMPDIR:-/tmp}/akudoa-mutants.XXXXXX")
  made_scratch=1
fi
mkdir -p "$scratch/src"
scratch=$(cd "$scratch" && pwd)
src=$scratch/src
cleanup() { [ "$keep" = 1 ] || [ "$made_scratch" = 0 ] || rm -rf "$scratch"; }
trap cleanup EXIT
if git -C "$root" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  (cd "$root" && git ls-files -z -co --exclude-standard | tar --null -T - -cf -) | tar -xf - -C "$src"
else
  (cd "$root" && tar --exclude='./build*' -cf - .) | tar -xf - -C "$src"
fi
# Files the list no longer names are not mutated; a reused scratch copy
# keeps its build directories.

if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache
  # Paths relative to the tree, so the scratch copy hits the cache of
  # earlier builds made elsewhere.
  export CCACHE_BASEDIR=/ CCACHE_NOHASHDIR=1
fi

need_tsan=0 need_plain=0
for line in "${picked[@]}"; do
  for e in ${line##* | }; do
    case "$e" in tsan:*) need_tsan=1 ;; *) need_plain=1 ;; esac
  done
done

configure() { # dir extra-args...
  local dir=$1; shift
  cmake -S "$src" -B "$dir" -DAKUDOA_BUILD_TESTS=ON -DAKUDOA_WERROR=OFF "$@" >"$dir.configure.log" 2>&1 ||
    { echo "mutants: configure failed, see $dir.configure.log" >&2; exit 2; }
}
build() { # dir targets...
  local dir=$1; shift
  local t=() x
  for x in "$@"; do t+=(--target "$x"); done
  cmake --build "$dir" -j"$jobs" "${t[@]}" >"$dir.build.log" 2>&1
}
exe() { # dir program -> path of the built test program
  case "$2" in
    test_tools) echo "$1/tools/$2" ;;
    *) echo "$1/tests/$2" ;;
  esac
}
progs_of() { # tests-field [tsan] -> program names
  local e p
  for e in $1; do
    case "$e" in tsan:*) [ "$2" = tsan ] || continue; e=${e#tsan:} ;; *) [ "$2" = tsan ] && continue ;; esac
    p=${e%%:*}
    echo "$p"
  done | sort -u
}

rel=$scratch/build
tsanb=$scratch/build-tsan
start=$(date +%s)
echo "mutants: building the scratch copy in $scratch"
if [ "$need_plain" = 1 ]; then
  mkdir -p "$rel"
  # The release build's code without its debug information: the same
  # objects, compiled and linked faster.
  configure "$rel" -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG"
  build "$rel" || { echo "mutants: the unmutated tree does not build, see $rel.build.log" >&2; exit 2; }
fi
if [ "$need_tsan" = 1 ] && [ "$tsan" = 1 ]; then
  mkdir -p "$tsanb"
  configure "$tsanb" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAKUDOA_TSAN=ON -DAKUDOA_BUILD_TOOLS=OFF
  build "$tsanb" test_akudoa || { echo "mutants: the thread-sanitizer build failed, see $tsanb.build.log" >&2; exit 2; }
fi
echo "mutants: built in $(( $(date +%s) - start )) s; ${#picked[@]} mutant(s)"

# Runs the entries of one build; status 0 when every program passed.
run_tests() { # dir tests-field [tsan]
  local dir=$1 field=$2 mode=${3:-} e prog filter args cache threads rc=0
  # OpenMP's runtime is not instrumented for the thread sanitizer, which
  # then reports its own worker hand-offs as races in the unmutated tree:
  # one OpenMP thread leaves only the library's own threads to judge.
  threads=${OMP_NUM_THREADS:-2}
  [ "$mode" != tsan ] || threads=1
  for e in $field; do
    case "$e" in tsan:*) [ "$mode" = tsan ] || continue; e=${e#tsan:} ;; *) [ "$mode" = tsan ] && continue ;; esac
    prog=${e%%:*}
    filter=""
    [ "$prog" = "$e" ] || filter=${e#*:}
    args=(--gtest_brief=1 --gtest_fail_fast)
    [ -z "$filter" ] || args+=("--gtest_filter=$filter")
    # A fresh steering-table cache: a table saved by the unmutated tree
    # would hide a fault in how tables are built.
    cache=$scratch/cache
    rm -rf "$cache"
    mkdir -p "$cache"
    # The outer braces catch the shell's own note on a crash ("Bus error").
    { ( cd "$(dirname "$(exe "$dir" "$prog")")" &&
        AKUDOA_CACHE_DIR=$cache/ OMP_NUM_THREADS=$threads TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS:-}" \
          timeout -k 10 "$timeout" "$(exe "$dir" "$prog")" "${args[@]}" ) >>"$scratch/last.log" 2>&1; } \
      2>>"$scratch/last.log" || rc=1
    [ "$rc" = 0 ] || break
  done
  return $rc
}

expected() { [ -n "$expect" ] && grep -v '^\s*#' "$expect" | awk '{print $1}' | grep -qxF "$1"; }

killed=0 survived=0 failed=0 skipped=0 unexpected=()
for line in "${picked[@]}"; do
  IFS=$'\x1f' read -r name file expr tests < <(awk -F' [|] ' '{
    n=$1; f=$2; t=$NF; e=$3; for (i=4; i<NF; i++) e=e " | " $i
    printf "%s\x1f%s\x1f%s\x1f%s\n", n, f, e, t }' <<<"$line")
  name=$(trim "$name") file=$(trim "$file") expr=$(trim "$expr") tests=$(trim "$tests")
  t0=$(date +%s)
  target=$src/$file
  report() { printf '%-11s %s (%s s)\n' "$1" "$name" "$(( $(date +%s) - t0 ))"; }

  has_plain=$(progs_of "$tests" "")
  has_tsan=$(progs_of "$tests" tsan)
  if [ -z "$has_plain" ] && { [ "$tsan" = 0 ] || [ -z "$has_tsan" ]; }; then
    report skipped; echo "            (thread-sanitizer mutant: run with --tsan)"
    skipped=$((skipped + 1)); continue
  fi
  if [ ! -f "$target" ]; then
    report not-applied; echo "            ($file does not exist)"
    failed=$((failed + 1)); continue
  fi
  cp -p "$target" "$scratch/orig"
  if ! sed -E -e "$expr" "$scratch/orig" >"$scratch/mutant" 2>"$scratch/sed.log"; then
    report not-applied; sed 's/^/            /' "$scratch/sed.log"
    failed=$((failed + 1)); continue
  fi
  removed=$(diff "$scratch/orig" "$scratch/mutant" | grep -c '^<')
  added=$(diff "$scratch/orig" "$scratch/mutant" | grep -c '^>')
  if [ "$removed" != 1 ] || [ "$added" != 1 ]; then
    report not-applied; echo "            (changes $removed line(s), not exactly one)"
    failed=$((failed + 1)); continue
  fi
  cp "$scratch/mutant" "$target"
  : >"$scratch/last.log"
  outcome=""
  if [ -n "$has_plain" ]; then
    # shellcheck disable=SC2046
    if ! build "$rel" $has_plain; then
      outcome=not-built
    elif ! run_tests "$rel" "$tests"; then
      outcome=killed
    fi
  fi
  if [ -z "$outcome" ] && [ "$tsan" = 1 ] && [ -n "$has_tsan" ]; then
    # shellcheck disable=SC2046
    if ! build "$tsanb" $has_tsan; then
      outcome=not-built
    elif ! run_tests "$tsanb" "$tests" tsan; then
      outcome=killed
    fi
  fi
  [ -n "$outcome" ] || outcome=survived
  # Restore; the fresh time stamp makes the next build recompile the file.
  cp "$scratch/orig" "$target"
  touch "$target"
  report "$outcome"
  case "$outcome" in
    killed) killed=$((killed + 1))
      # The first failing test, or how the program ended.
      by=$(grep -m1 -E '^\[  FAILED  \] [A-Za-z]' "$scratch/last.log" | awk '{print $4}')
      [ -n "$by" ] || by=$(grep -m1 -E 'Bus error|Segmentation|Aborted|ThreadSanitizer|Terminated' "$scratch/last.log")
      echo "            by ${by:-a crash or time-out}" ;;
    survived) survived=$((survived + 1)); expected "$name" || unexpected+=("$name") ;;
    not-built) failed=$((failed + 1)); tail -n 5 "$rel.build.log" | sed 's/^/            /' ;;
  esac
done
# Leave the builds matching the unmutated tree for a reused scratch copy.
[ "$made_scratch" = 1 ] && [ "$keep" = 0 ] || [ "$need_plain" = 0 ] || build "$rel" >/dev/null 2>&1 || true

total=$(( $(date +%s) - start ))
echo "$killed killed, $survived survived"
[ "$skipped" = 0 ] || echo "($skipped skipped)"
[ "$failed" = 0 ] || echo "$failed mutant(s) did not apply or did not build"
[ ${#unexpected[@]} = 0 ] || echo "survived unexpectedly: ${unexpected[*]}"
echo "mutants: $total s in all"
[ "$failed" = 0 ] && [ ${#unexpected[@]} = 0 ]
exit
}
