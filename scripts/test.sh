#!/usr/bin/env bash
# Builds and runs every test suite: a plain build, then the same suites under
# ASan+UBSan and under TSan, then a short fuzzing run; first a compile check
# of the macOS sources against declared frameworks. Installs what is
# missing first.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh

jobs=$(nproc 2>/dev/null || echo 2)
build_root=${ZOR_BUILD_ROOT:-build-test}

# TSan needs a fixed memory layout; newer kernels randomise more address bits
# than its shadow mapping allows, so its tests run without randomisation.
no_aslr() { if setarch "$(uname -m)" -R true 2>/dev/null; then setarch "$(uname -m)" -R "$@"; else "$@"; fi; }

summaries=$(mktemp)
trap 'rm -f "$summaries"' EXIT

# Runs ctest in a build directory and keeps its closing line for the total.
run_ctest() {
  local dir=$1; shift
  "$@" ctest --test-dir "$dir" --output-on-failure -j"${jobs}" --timeout 300 | tee -a "$summaries"
}

# run_suite NAME [RUNNER...] -- [CMAKE ARGS...]
run_suite() {
  local name=$1; shift
  local runner=()
  while [ "$1" != "--" ]; do runner+=("$1"); shift; done
  shift
  echo "=== ${name} build"
  cmake -S . -B "${build_root}/${name}" -DZOR_WERROR=ON "$@" >/dev/null
  cmake --build "${build_root}/${name}" -j"${jobs}"
  echo "=== ${name} tests"
  run_ctest "${build_root}/${name}" ${runner[@]+"${runner[@]}"}
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# On macOS the real build compiles them.
if [ "$(uname -s)" = Linux ]; then
  echo "=== macOS sources (compile only)"
  scripts/check-mac-sources.sh
fi

run_suite plain -- -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite asan -- -DCMAKE_BUILD_TYPE=Debug -DZOR_SANITIZE=address -DZOR_BUILD_BENCH=OFF
run_suite tsan no_aslr -- -DCMAKE_BUILD_TYPE=Debug -DZOR_SANITIZE=thread -DZOR_BUILD_BENCH=OFF

if [ -f tests/fuzz/CMakeLists.txt ]; then
  echo "=== fuzz build"
  CC=clang CXX=clang++ cmake -S . -B "${build_root}/fuzz" -DZOR_WERROR=ON -DCMAKE_BUILD_TYPE=Debug \
    -DZOR_BUILD_FUZZ=ON -DZOR_BUILD_BENCH=OFF -DZOR_BUILD_TESTS=ON >/dev/null
  cmake --build "${build_root}/fuzz" -j"${jobs}" --target zor_fuzz_targets
  echo "=== fuzz runs"
  ctest --test-dir "${build_root}/fuzz" --output-on-failure -L fuzz | tee -a "$summaries"
fi

# One closing line over every run above.
awk '/tests passed, [0-9]+ tests failed out of/ { failed += $4; total += $NF }
     END { printf "all builds: %d passed, %d failed\n", total - failed, failed }' "$summaries"
