#!/usr/bin/env bash
# Seeds one-line faults into a copy of the tracked files, one at a time, and
# checks that the tests meant to catch each of them fail. The copy lives in
# build/mutants/src with one release build next to it, so each fault costs an
# incremental rebuild of the library and the one test binary that should
# catch it. Every rebuild and test run holds /tmp/qo-build.lock, so the script
# can run while others build. Not run by CI.
#
#   scripts/mutants.sh          # every fault below
#   scripts/mutants.sh 2 7      # only these, numbered as printed
#
# Prints KILLED or SURVIVED per fault (NOT APPLIED when the edit no longer
# matches, BUILD FAILED when the fault does not compile; logs in
# build/mutants/logs) and exits 1 unless every fault was killed.
set -euo pipefail
cd "$(dirname "$0")/.."

ROOT=$PWD
WORK=$ROOT/build/mutants
SRC=$WORK/src
BUILD=$WORK/build
LOGS=$WORK/logs
LOCK=/tmp/qo-build.lock
JOBS=${JOBS:-2}

FILES=() EDITS=() TARGETS=() TESTS=() WHATS=()
# mutant <file> <sed edit> <build target> <ctest regex> <fault>
mutant() { FILES+=("$1") EDITS+=("$2") TARGETS+=("$3") TESTS+=("$4") WHATS+=("$5"); }

FI=fml/video_in/fml_file_in.cc
FI_TEST=node_file_in_test
mutant $FI 's/kTimeoutAllowance = 3;/kTimeoutAllowance = 1;/' \
  $FI_TEST 'FileInputStream\.ThreeEmptyPulls' 'file input ends at the first empty pull'
mutant $FI 's/^    retries = kTimeoutAllowance;$/    ;/' \
  $FI_TEST 'FileInputStream\.ThreeEmptyPulls' 'a frame does not restore the time-out allowance'
mutant $FI 's/if (decoder_ != nullptr) {/if (false) {/' \
  $FI_TEST 'FileInputApi\.' 'no guard against a second start'
mutant $FI 's/file_list_.push_back(path_);/file_list_ = {path_};/' \
  $FI_TEST 'FileInputApi\.' 'a restart plays the new file'
mutant $FI '/"qo.mm.file.in.destroy"/,/delete/ s/LOG(3)/LOG(4)/' \
  $FI_TEST 'FileInputApi\.' 'destroy of a null node logs at 4'
mutant $FI '/"qo.mm.file.in.open"/,/Start()/ s/LOG(4)/LOG(3)/' \
  $FI_TEST 'FileInputApi\.' 'open of a null node logs at 3'
mutant $FI '/"qo.mm.file.in.set.attr.string"/,/GetProp/ s/LOG(4)/LOG(5)/' \
  $FI_TEST 'FileInputApi\.' 'set.attr.string of a null node is fatal'
mutant fml/video_in/fml_video_in.cc '/"qo.mm.video.in.close"/,/Stop()/ s/LOG(3)/LOG(4)/' \
  node_video_in_test 'VideoInputApi\.' 'close of a null video input node logs at 4'

PROP=include/core/qo_prop.h
mutant $PROP 's/" exceeds range \["/" out of range ["/' \
  qo_core_test 'PropTest\.' 'range refusal text'
mutant $PROP '0,/(vs.low <= _val)/ s/(vs.low <= _val)/(vs.low < _val)/' \
  qo_core_test 'PropTest\.' 'an int at the lower bound is refused'
mutant $PROP '/Set(const std::string& _key, double _val)/,/exceeds/ s/(vs.upper >= _val)/(vs.upper > _val)/' \
  qo_core_test 'PropTest\.' 'a double at the upper bound is refused'
mutant $PROP 's/"key " << _key << " not exist!/"no key " << _key << " not exist!/' \
  qo_core_test 'PropTest\.' 'unknown key text'
mutant $PROP 's/LOG(3) << "double_paras/LOG(2) << "double_paras/' \
  qo_core_test 'PropTest\.' 'read of an unknown double logs at 2'

PF=include/core/qo_packed_func.h
mutant $PF 's/CHECK(endpt == s.c_str() + s.length()) << "unknown type "/CHECK(endpt == s.c_str() + s.length()) << "bad type "/' \
  qo_core_test 'PackedFuncTest\.TypeTexts' 'unread type text refusal'
mutant $PF 's/if (bits != 0) t.bits = bits;/t.bits = bits;/' \
  qo_core_test 'PackedFuncTest\.TypeTexts' 'no default width'
mutant $PF 's/    t.bits = 64;/    t.bits = 32;/' \
  qo_core_test 'PackedFuncTest\.TypeTexts' 'handle width'
mutant $PF "s/if (\*xdelim == 'x') {/if (*xdelim == 'X') {/" \
  qo_core_test 'PackedFuncTest\.TypeTexts' 'lanes not read'

# Tracked files of the working tree into the copy; only changed ones are
# written, so the build stays incremental.
sync_tree() {
  local f
  git ls-files -z | while IFS= read -r -d '' f; do
    [[ -f $f ]] || continue
    cmp -s "$f" "$SRC/$f" 2>/dev/null && continue
    mkdir -p "$SRC/$(dirname "$f")"
    cp -p "$f" "$SRC/$f"
    touch "$SRC/$f"  # newer than anything built from the old text
  done
}

# build_and_test <log> <target> <regex>: 0 when the build and every test pass,
# 1 when a test fails, 2 when the build fails. Holds the shared build lock.
build_and_test() {
  local log=$1 target=$2 regex=$3
  (
    flock 9
    nice cmake --build "$BUILD" --target "$target" -j "$JOBS" >"$log" 2>&1 || exit 2
    nice timeout -k 10 900 ctest --test-dir "$BUILD" -R "$regex" --no-tests=error \
      --output-on-failure >>"$log" 2>&1 || exit 1
  ) 9>"$LOCK"
}

mkdir -p "$SRC" "$LOGS"
sync_tree
if [[ ! -f $BUILD/build.ninja ]]; then
  (
    flock 9
    cmake -S "$SRC" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQO_BUILD_BENCH=OFF
  ) 9>"$LOCK" >"$LOGS/configure.log" 2>&1 || {
    echo "configure failed: $LOGS/configure.log" >&2
    exit 2
  }
fi

picked=("$@")
if ((${#picked[@]} == 0)); then
  for i in "${!FILES[@]}"; do picked+=($((i + 1))); done
fi

# The unmutated tree must pass what each fault is checked with.
for n in "${picked[@]}"; do
  i=$((n - 1))
  key="${TARGETS[i]} ${TESTS[i]}"
  [[ " ${seen-} " == *" $key "* ]] && continue
  seen="${seen-} $key "
  if ! build_and_test "$LOGS/baseline-$n.log" "${TARGETS[i]}" "${TESTS[i]}"; then
    echo "baseline fails for ${TESTS[i]}: $LOGS/baseline-$n.log" >&2
    exit 2
  fi
done

survived=0
for n in "${picked[@]}"; do
  i=$((n - 1))
  file=$SRC/${FILES[i]}
  cp -p "$file" "$WORK/original"
  sed -i "${EDITS[i]}" "$file"
  if cmp -s "$file" "$WORK/original"; then
    result="NOT APPLIED"
  else
    diff "$WORK/original" "$file" >"$LOGS/mutant-$n.log" || true
    rc=0
    build_and_test "$LOGS/mutant-$n.run.log" "${TARGETS[i]}" "${TESTS[i]}" || rc=$?
    case $rc in
      0) result=SURVIVED ;;
      1) result=KILLED ;;
      *) result="BUILD FAILED" ;;
    esac
  fi
  cp "$WORK/original" "$file"
  touch "$file"  # the fault's objects are rebuilt next time
  [[ $result == KILLED ]] || survived=$((survived + 1))
  printf '%2d %-12s %s: %s [%s]\n' "$n" "$result" "${FILES[i]}" "${WHATS[i]}" "${TESTS[i]}"
done
echo "$survived of ${#picked[@]} not killed"
((survived == 0))
