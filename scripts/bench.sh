#!/usr/bin/env bash
# Builds the benchmarks in release mode and runs them against a virtual
# focuser; ends with a table of each exported call beside the raw hidapi
# exchange it makes, and on Linux ZORGetPosition on a virtual Bluetooth
# focuser beside the raw D-Bus round trip and zor_alpaca's latencies under 50
# polling clients. Extra arguments go to Google Benchmark.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh
build=${ZOR_BENCH_BUILD:-build-bench}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_BENCH=ON >/dev/null
targets=(zor_bench_calls)
# Linux also times a Bluetooth call beside the raw D-Bus round trip.
# and the Alpaca server under 50 polling clients (it preloads the virtual
# focusers, so Linux only).
[ "$(uname -s)" = Linux ] && targets+=(zor_bench_ble zor_bluez_sim zor_bench_alpaca_load)
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target "${targets[@]}"
"$build/bench/zor_bench_calls" --benchmark_color=false "$@"
if [ "$(uname -s)" = Linux ]; then
  ZOR_BLUEZ_SIM="$build/sim/zor_bluez_sim" ZOR_BLE_SIM="pro@382/name=Bench" \
    scripts/ble-sim-bus.sh "$build/bench/zor_bench_ble" --benchmark_color=false "$@"
  "$build/bench/zor_bench_alpaca_load" 50 10
fi
