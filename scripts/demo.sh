#!/usr/bin/env bash
# A short tour of zorctl on virtual focusers: installs what is missing,
# builds zorctl, then lists, inspects, moves and configures a virtual ZOR Pro
# on USB, and scans for, pairs with, inspects and moves one over Bluetooth.
# No focuser and no radio needed.
set -euo pipefail
cd "$(dirname "$0")/.."

# The package manager's progress goes to a log, shown only when it fails.
setup_log=$(mktemp)
echo "=== installing what is missing (if anything)"
scripts/bootstrap.sh >"$setup_log" 2>&1 || { cat "$setup_log"; exit 1; }
rm -f "$setup_log"

build=${ZOR_DEMO_BUILD:-build-demo}
echo "=== building zorctl, the Python package and zor_alpaca in ${build}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target zorctl zor_hidsim zor_bluez_sim zor_python zor_alpaca >/dev/null
zorctl="$build/tools/zorctl/zorctl"

# Virtual focusers keep their settings and logs under XDG_STATE_HOME (never
# where a real focuser's are); a fresh one makes every tour start alike.
XDG_STATE_HOME=$(mktemp -d)
export XDG_STATE_HOME
trap 'rm -rf "$XDG_STATE_HOME"' EXIT

# One ZOR Pro, firmware 3.8.2, named "demo", 12.5 °C, moving 1500 steps a second.
sim="--simulate=pro@382/alias=demo/temp=12.5/speed=1500"

show() {
  echo
  echo "\$ zorctl $*"
  "$zorctl" "$@"
}

echo "=== the tour (each command starts the virtual focuser afresh; the library"
echo "    restores its saved position and backlash, as with a real focuser)"
show "$sim" list
show "$sim" info 0
show "$sim" move 0 33000 --wait
show "$sim" position 0 --json
show "$sim" watch 0 --count 3 --interval 0.5 --move 32500

echo
echo "\$ printf 'get 0 led\\nset 0 led off\\nget 0 led\\nset 0 backlash 40\\nget 0 backlash\\n' | zorctl $sim shell"
printf 'get 0 led\nset 0 led off\nget 0 led\nset 0 backlash 40\nget 0 backlash\n' | "$zorctl" "$sim" shell

echo
echo "\$ zorctl --simulate=old@321:16 get 0 led     # early firmware has no LED control"
"$zorctl" --simulate=old@321:16 get 0 led || echo "(exit status $?)"

# A battery-powered ZOR Pro that advertises as "Garage". zorctl starts a
# private bus with it for each command, and stops it again afterwards.
ble="--simulate=ble:pro@382/name=Garage/battery=80/speed=1500"

echo
echo "=== the Bluetooth tour (scan and pairing progress go to standard error)"
show "$ble" ble scan
show "$ble" ble pair Garage

echo
echo "\$ printf 'move 31500 --wait\ninfo\n' | zorctl $ble --ble Garage shell   # one link for both"
printf 'move 31500 --wait\ninfo\n' | "$zorctl" "$ble" --ble Garage shell

echo
echo "\$ zorctl $ble --ble Attic info     # no focuser of that name"
"$zorctl" "$ble" --ble Attic info || echo "(exit status $?)"

echo
echo "=== the Alpaca server: zor_alpaca serves a virtual focuser to Alpaca clients"
# (N.I.N.A., SGP, ...). Here the client is curl, on this computer only.
port=${ZOR_DEMO_ALPACA_PORT:-11111}
alpaca_config=$(mktemp -d)
LD_PRELOAD="$PWD/$build/sim/libzor_hidsim.so" ZOR_SIM="pro/speed=1500" XDG_CONFIG_HOME="$alpaca_config" \
  "$build/alpaca/zor_alpaca" --bind 127.0.0.1 --port "$port" --discovery-port "$((port + 1))" &
alpaca_pid=$!
trap 'kill "$alpaca_pid" 2>/dev/null || true; rm -rf "$XDG_STATE_HOME" "$alpaca_config"' EXIT
api=http://127.0.0.1:$port/api/v1/focuser/0
for _ in $(seq 50); do curl -s -o /dev/null "http://127.0.0.1:$port/management/apiversions" && break; sleep 0.1; done
alpaca() {
  printf '$ curl -s'
  printf " '%s'" "$@"
  echo
  curl -s "$@"
  echo
}
alpaca "http://127.0.0.1:$port/management/v1/configureddevices"
alpaca -X PUT -d "Connected=true&ClientID=1&ClientTransactionID=1" "$api/connected"
alpaca "$api/position?ClientID=1&ClientTransactionID=2"
alpaca -X PUT -d "Position=34000&ClientID=1&ClientTransactionID=3" "$api/move"
echo "(polling ismoving and position until the move ends)"
while curl -s "$api/ismoving" | grep -q '"Value":true'; do
  echo "  position $(curl -s "$api/position" | sed -n 's/.*"Value":\([0-9]*\).*/\1/p')"
  sleep 0.25
done
alpaca "$api/devicestate?ClientID=1&ClientTransactionID=4"
kill -TERM "$alpaca_pid"
status=0
wait "$alpaca_pid" || status=$?
echo "(zor_alpaca ended with status $status; while it runs, its setup page is http://127.0.0.1:$port/setup)"

echo
echo "=== done. Try more: $zorctl --help"
