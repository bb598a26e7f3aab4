#!/usr/bin/env bash
# Virtual Bluetooth focusers with no radio: starts a private dbus-daemon and
# zor_bluez_sim on it (which owns org.bluez there), then
#   - with no arguments: prints DBUS_SYSTEM_BUS_ADDRESS=... and serves until
#     interrupted or until the simulator quits;
#   - with a command: runs it with DBUS_SYSTEM_BUS_ADDRESS pointing at the
#     private bus and exits with its status.
# Both processes are stopped on the way out. The focusers come from
# ZOR_BLE_SIM (see zor_bluez_sim --help); ZOR_BLUEZ_SIM names the program
# (default: build/sim/zor_bluez_sim of this checkout).
#
#   scripts/ble-sim-bus.sh
#   ZOR_BLE_SIM="pro@382/name=Garage" scripts/ble-sim-bus.sh build/tools/zorctl/zorctl ble-scan
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
sim=${ZOR_BLUEZ_SIM:-$root/build/sim/zor_bluez_sim}
[[ -x $sim ]] || { echo "ble-sim-bus: $sim not built (cmake --build build --target zor_bluez_sim)" >&2; exit 2; }

dir=$(mktemp -d "${TMPDIR:-/tmp}/zor-ble-bus.XXXXXX")
daemon_pid=""
sim_pid=""
stop() {
  trap - EXIT INT TERM
  for pid in $sim_pid $daemon_pid; do
    kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null || true
  done
  rm -rf "$dir"
}
trap stop EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# A bus on which anyone may own any name and talk to anyone.
cat >"$dir/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:path=$dir/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
EOF

# Waits up to 5 s for a condition.
await() {
  for _ in $(seq 50); do
    "$@" && return 0
    sleep 0.1
  done
  return 1
}

# (Its complaint that it may not raise its file limit is noise; it is shown
# only if the daemon fails.)
dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile 2>"$dir/daemon.err" &
daemon_pid=$!
address="unix:path=$dir/bus"
await test -S "$dir/bus" || { cat "$dir/daemon.err" >&2; echo "ble-sim-bus: dbus-daemon did not start" >&2; exit 1; }

"$sim" --bus "$address" >"$dir/sim.out" &
sim_pid=$!
await grep -q 'on org.bluez' "$dir/sim.out" || {
  echo "ble-sim-bus: zor_bluez_sim did not start" >&2
  exit 1
}

export DBUS_SYSTEM_BUS_ADDRESS=$address
if (($#)); then
  status=0
  "$@" || status=$?
  exit "$status"
fi
echo "DBUS_SYSTEM_BUS_ADDRESS=$address"
wait "$sim_pid" || true
sim_pid=""
