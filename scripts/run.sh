#!/usr/bin/env bash
# One entry point for building and checking the library on Debian 12.
#
#   bash scripts/run.sh demo   install what is missing, build, and run
#                              vepra-image on a sample scan it makes itself
#   bash scripts/run.sh test   install what is missing, build (warnings as
#                              errors), and run the whole test suite: unit
#                              tests, corpus replays and the stack-frame
#                              check under ASan+UBSan, the concurrency tests
#                              under TSan, the fuzzers
#   bash scripts/run.sh bench  build the benchmarks and run them
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=${JOBS:-$(nproc)}

BUILD_PACKAGES=(cmake ninja-build g++ pkg-config libapr1-dev libaprutil1-dev libtpl-dev uthash-dev
                libdeflate-dev libzstd-dev libcli11-dev nlohmann-json3-dev)
TEST_PACKAGES=(googletest libgtest-dev libtiff-dev zlib1g-dev libssl-dev clang libclang-rt-dev binutils
               nlohmann-json3-dev doxygen dpkg-dev lintian)
# Peers of the benchmarks: libsigc++ 3 and GObject (signals), ISA-L (CRC-32).
BENCH_PACKAGES=(libbenchmark-dev libsigc++-3.0-dev libglib2.0-dev libisal-dev)

log() { printf '\n== %s\n' "$*"; }

install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return
  log "installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

configure_and_build() {  # DIR [cmake options...]
  local dir=$1
  shift
  cmake -S "$ROOT" -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS"
}

demo() {
  install_missing "${BUILD_PACKAGES[@]}"
  log "building"
  configure_and_build build -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
  local out=$ROOT/out
  rm -rf "$out" && mkdir -p "$out"
  cmake --install build --prefix "$out/prefix" >/dev/null
  local tool=$out/prefix/bin/vepra-image
  export LD_LIBRARY_PATH=$(dirname "$(find "$out/prefix" -name libvepra.so.1 | head -1)")
  log "vepra-image synth -o $out/scan.tif   (prints where its spots are)"
  "$tool" synth -o "$out/scan.tif" | tee "$out/spots.tsv"
  log "vepra-image info $out/scan.tif"
  "$tool" info "$out/scan.tif"
  log "vepra-image stats --histogram $out/histogram.csv --plot $out/histogram.svg $out/scan.tif"
  "$tool" stats --histogram "$out/histogram.csv" --plot "$out/histogram.svg" "$out/scan.tif"
  log "vepra-image density $out/scan.tif -o $out/density.tif"
  "$tool" density "$out/scan.tif" -o "$out/density.tif"
  # Two spots: the first, and the unsaturated one farthest from it; each a
  # circle of two deviations, the background in a ring beyond both.
  local rois
  rois=$(awk -F'\t' 'NR > 1 && $5 < 65535 { x[NR] = $2; y[NR] = $3; s[NR] = $4; last = NR }
         END {
           far = 3
           for (i = 3; i <= last; i++)
             if ((x[i] - x[2]) ^ 2 + (y[i] - y[2]) ^ 2 > (x[far] - x[2]) ^ 2 + (y[far] - y[2]) ^ 2) far = i
           r1 = int(2 * s[2] + 0.5); r2 = int(2 * s[far] + 0.5); big = r1 > r2 ? r1 : r2
           printf "--roi circle:%s,%s,%d --roi circle:%s,%s,%d --ring %d,%d",
                  x[2], y[2], r1, x[far], y[far], r2, big + 4, big + 12 }' "$out/spots.tsv")
  log "vepra-image measure $out/scan.tif $rois"
  # shellcheck disable=SC2086
  "$tool" measure "$out/scan.tif" $rois
  log "vepra-image overlay $out/scan.tif $rois -o $out/overlay.tif"
  # shellcheck disable=SC2086
  "$tool" overlay "$out/scan.tif" $rois -o "$out/overlay.tif"
  log "done: the library and vepra-image are installed under $out/prefix;"
  echo "   the sample scan is $out/scan.tif (its spots in $out/spots.tsv),"
  echo "   its histogram $out/histogram.csv and $out/histogram.svg, its optical"
  echo "   density $out/density.tif and the measured spots drawn on $out/overlay.tif"
}

# Durations of the fuzzers in the test run, in seconds (default 30).
fuzz_seconds() {
  case $1 in
    tiff_read_fuzzer) echo 60 ;;
    text_fuzzer) echo 210 ;;  # six targets
    *) echo 30 ;;
  esac
}

run_fuzzers() {  # BUILD_DIR; prints one line per fuzzer, returns failures
  local dir=$1 failures=0 pids=() names=()
  local fuzzers=("$dir"/fuzz/*_fuzzer)
  [ -e "${fuzzers[0]}" ] || { echo "no fuzzers built"; return 0; }
  mkdir -p "$dir/fuzz-runs"
  for f in "${fuzzers[@]}"; do
    local name seconds corpus
    name=$(basename "$f")
    seconds=$(fuzz_seconds "$name")
    corpus=$dir/fuzz-runs/$name-corpus
    rm -rf "$corpus" && mkdir -p "$corpus"
    local starters=$ROOT/fuzz/corpus/${name%_fuzzer}
    [ -d "$starters" ] && cp -r "$starters"/. "$corpus"/
    ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1 \
      "$f" -max_total_time="$seconds" -rss_limit_mb=4096 -timeout=10 -print_final_stats=1 \
      -artifact_prefix="$dir/fuzz-runs/$name-" "$corpus" > "$dir/fuzz-runs/$name.log" 2>&1 &
    pids+=($!)
    names+=("$name")
    # Two at a time: one per core.
    if [ ${#pids[@]} -ge 2 ]; then
      wait_fuzzer "${pids[0]}" "${names[0]}" "$dir" || failures=$((failures + 1))
      pids=("${pids[@]:1}")
      names=("${names[@]:1}")
    fi
  done
  local i
  for i in "${!pids[@]}"; do
    wait_fuzzer "${pids[$i]}" "${names[$i]}" "$dir" || failures=$((failures + 1))
  done
  return $failures
}

wait_fuzzer() {  # PID NAME BUILD_DIR
  local status=0
  wait "$1" || status=$?
  local runs
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$3/fuzz-runs/$2.log" | awk '{print $2}')
  if [ $status -eq 0 ]; then
    echo "fuzz $2: ${runs:-?} executions, no failure"
  else
    echo "fuzz $2: FAILED (exit $status); log: $3/fuzz-runs/$2.log"
    tail -40 "$3/fuzz-runs/$2.log"
  fi
  return $status
}

# Largest stack frame allowed to a library function in the test run.
STACK_LIMIT=65536

test_all() {
  install_missing "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
  local passed=0 failed=0 summary

  # Warnings are errors here, also when the tree is not a git checkout;
  # the stack frames are checked with -fstack-usage;
  # the fuzzers' starting corpora are replayed by the unit tests.
  log "unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
  configure_and_build build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEPRA_SANITIZE="address;undefined" -DVEPRA_WERROR=ON -DVEPRA_STACK_LIMIT=$STACK_LIMIT
  summary=$(mktemp)
  (cd build-asan && ctest -j "$JOBS" --output-on-failure --timeout 900) | tee "$summary" || true
  count_ctest "$summary"

  log "API reference (Doxygen; an undocumented public name fails it)"
  if cmake --build build-asan --target docs; then
    echo "docs: build-asan/docs/html/index.html"
    passed=$((passed + 1))
  else
    echo "docs: FAILED"
    failed=$((failed + 1))
  fi

  log "concurrency tests under ThreadSanitizer"
  # Only the concurrency tests are built here (files tests/*/*_tsan_test.cpp).
  cmake -S "$ROOT" -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEPRA_SANITIZE=thread -DVEPRA_BUILD_TOOLS=OFF -DVEPRA_WERROR=ON >/dev/null
  local tsan_targets=()
  for t in tests/*/*_tsan_test.cpp; do tsan_targets+=("$(basename "$t" .cpp)"); done
  cmake --build build-tsan -j "$JOBS" --target "${tsan_targets[@]}"
  (cd build-tsan && ctest -j "$JOBS" -L tsan --output-on-failure) | tee "$summary" || true
  count_ctest "$summary"

  log "fuzzers (clang, libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer)"
  CC=clang CXX=clang++ configure_and_build build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEPRA_BUILD_FUZZERS=ON -DVEPRA_SANITIZE="address;undefined" -DBUILD_TESTING=OFF \
    -DVEPRA_BUILD_TOOLS=OFF -DVEPRA_WERROR=ON
  run_fuzzers build-fuzz | tee "$summary" || true
  passed=$((passed + $(grep -c 'no failure$' "$summary" || true)))
  failed=$((failed + $(grep -c ': FAILED' "$summary" || true)))
  rm -f "$summary"

  echo
  echo "$passed passed, $failed failed"
  [ "$failed" -eq 0 ]
}

# Adds the counts of a ctest summary ("N% tests passed, F tests failed out
# of T") to passed and failed; a run without a summary counts as a failure.
count_ctest() {
  local line total fails
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -1 || true)
  if [ -z "$line" ]; then
    failed=$((failed + 1))
    return
  fi
  fails=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<< "$line")
  total=$(sed -E 's/.*out of ([0-9]+).*/\1/' <<< "$line")
  passed=$((passed + total - fails))
  failed=$((failed + fails))
}

bench() {
  install_missing "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
  # The tools are built too: vepra_image_bench runs vepra-image.
  configure_and_build build-bench -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DVEPRA_BUILD_BENCH=ON
  for b in build-bench/bench/*_bench; do
    log "$b"
    "$b"
  done
}

case ${1:-} in
  demo) demo ;;
  test) test_all ;;
  bench) bench ;;
  *) echo "usage: $0 demo|test|bench" >&2; exit 2 ;;
esac
