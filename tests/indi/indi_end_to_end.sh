#!/usr/bin/env bash
# The INDI driver as an imaging suite meets it: the real indiserver and INDI's
# own client tools (indi_setprop, indi_getprop, indi_eval) against
# indi_zor_focuser, with virtual focusers preloaded into the driver by a
# wrapper named as the driver and steered through their control socket.
#
#   indi_end_to_end.sh CASE DRIVER PRELOAD ZORCTL BLUEZ_SIM BUS_SCRIPT
#
# CASE is usb (two focusers, every control, a retarget, the limits of the
# maximum, temperature compensation, the saved configuration, hand
# controller, unplug and return), chained (a second server relays the
# first; a focuser without a probe; a second driver finds the focuser in
# use), restart (two focusers keep their device across a restart of the
# driver, and their position across a power cycle) or bluetooth (virtual Bluetooth focusers on a private bus beside a
# USB focuser: scan, a connect that fails, connect, battery, a link dropped
# during a move and regained, while the USB focuser's updates keep coming).
set -euo pipefail
case_name=$1 driver=$2 preload=$3 zorctl=$4 bluez_sim=$5 bus_script=$6

work=$(mktemp -d "${TMPDIR:-/tmp}/zor-indi.XXXXXX")
pids=()
cleanup() {
  local status=$?
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ $status -ne 0 ]; then
    for log in "$work"/*.log "$work"/*.messages/*; do echo "--- $log"; tail -n 30 "$log"; done
  fi
  [ -n "${ZOR_INDI_KEEP:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

mkdir -p "$work/bin" "$work/home"
export HOME=$work/home
# Where drivers leave the lock of each focuser they drive: this test's own.
export XDG_RUNTIME_DIR=$work
control=$work/sim.sock
# The wrapper carries what the server does not pass on: the virtual focusers
# and, in a sanitizer build, its runtime (first in the preload list). Leaks
# are checked by the library's own suites; libindi's at exit are not ours.
cat >"$work/bin/indi_zor_focuser" <<WRAPPER
#!/bin/sh
export LD_PRELOAD="$preload" ZOR_SIM_CONTROL="$control"
export ASAN_OPTIONS="\${ASAN_OPTIONS:+\$ASAN_OPTIONS:}detect_leaks=0"
exec "$driver" "\$@"
WRAPPER
chmod +x "$work/bin/indi_zor_focuser"
export PATH=$work/bin:$PATH

# start_server NAME DRIVER...: an indiserver on a free port and a socket of
# its own, which ends (-r 0) rather than restart a driver that crashed.
# Sets the variable port_NAME.
start_server() {
  local name=$1; shift
  mkdir -p "$work/$name.messages"
  indiserver ${ZOR_INDI_VERBOSE:--v} -l "$work/$name.messages" -p 0 -u "$work/$name.sock" -r 0 "$@" \
    >"$work/$name.log" 2>&1 &
  local pid=$!
  pids+=("$pid")
  local port=""
  for _ in $(seq 100); do
    port=$(ss -Htlnp 2>/dev/null | sed -n "s/.*:\([0-9]*\) .*pid=$pid,.*/\1/p" | head -n1)
    [ -n "$port" ] && break
    sleep 0.1
  done
  [ -n "$port" ] || fail "indiserver $name did not listen"
  printf -v "port_$name" '%s' "$port"
}

port=""
setp() { indi_setprop -p "$port" "$@"; }
getp() { timeout 10 indi_getprop -p "$port" -t 2 -1 "$1"; }
# indi_eval restarts its time-out on every message, so the wait has a hard
# limit of its own.
await() {
  timeout "${2:-30}" indi_eval -p "$port" -t 20 -w "$1" >/dev/null || fail "waiting for $1"
}
sim() { "$zorctl" sim --socket "$control" "$@"; }
# The value of one field of the virtual focuser's state.
sim_field() { sim state "$1" | tr ' ' '\n' | sed -n "s/^$2=//p"; }
expect_eq() { [ "$1" = "$2" ] || fail "$3: expected $2, got $1"; }
await_sim() { # DEVICE FIELD VALUE
  for _ in $(seq 100); do [ "$(sim_field "$1" "$2")" = "$3" ] && return; sleep 0.1; done
  fail "virtual focuser $1: $2 is $(sim_field "$1" "$2"), expected $3"
}

OK=1 BUSY=2 ALERT=3
F1="ZOR Focuser" F2="ZOR Focuser 2"

connect() {
  setp "$1.CONNECTION.CONNECT=On"
  await "\"$1.CONNECTION.CONNECT\"==1"
  await "\"$1.ABS_FOCUS_POSITION._STATE\"==$OK"
}
move_to() { # DEVICE STEP
  setp "$1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=$2"
  await "\"$1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==$2 && \"$1.ABS_FOCUS_POSITION._STATE\"==$OK"
}

# listen DEVICE COMMAND...: runs COMMAND while a client of its own watches
# DEVICE (tests/indi/indi_listen.py); what it saw goes to $work/listen.out.
listen() {
  local device=$1; shift
  local stop=$work/listen.stop
  rm -f "$stop"
  python3 "$(dirname "$0")/indi_listen.py" "$port" "$device" "$stop" >"$work/listen.out" &
  local listener=$!
  sleep 0.5
  "$@"
  touch "$stop"
  wait "$listener"
}

# The largest gap between two updates of DEVICE's position while COMMAND...
# runs (the focuser should be moving). Prints the figure; fails only when
# the updates stopped for good (several seconds), since timing is not what
# these tests measure.
gaps_during() { # DEVICE LABEL COMMAND...
  local device=$1 label=$2; shift 2
  listen "$device" "$@"
  local gap; gap=$(head -n1 "$work/listen.out")
  echo "update gap of $device during $label: $gap"
  local ms; ms=$(sed -n 's/^largest gap \([0-9]*\) ms.*/\1/p' <<<"$gap")
  [ -n "$ms" ] && (( ms < 3000 )) || fail "$device's updates stopped during $label: $gap"
}

# Milliseconds since the epoch, and since such a time.
now() { date +%s%3N; }
elapsed_ms() { echo $(( $(now) - $1 )); }

check_server_log() {
  if grep -E "Sanitizer|runtime error|Segmentation|Aborted|terminate called|died|restart" "$work"/*.log; then
    fail "the server log shows a driver failure"
  fi
}

usb_case() {
  export ZOR_SIM="2*pro/speed=4000/temp=20"
  start_server main indi_zor_focuser
  port=$port_main
  await "\"$F2.CONNECTION.CONNECT\"==0"
  connect "$F1"
  connect "$F2"
  [ "$(getp "$F1.ZOR_IDENTITY.SERIAL")" != "$(getp "$F2.ZOR_IDENTITY.SERIAL")" ] || fail "both devices drive one focuser"
  expect_eq "$(getp "$F1.ZOR_IDENTITY.LINK")" USB "link"
  # Other clients asking for the properties change nothing a client sees.
  two_clients_ask() { getp "$F1.ZOR_FOCUSERS.*" >/dev/null; getp "$F2.*.*" >/dev/null; }
  listen "$F1" two_clients_ask
  expect_eq "$(sed -n 2p "$work/listen.out")" "deleted 0 properties" "properties seen by a client while others asked"
  expect_eq "$(getp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE")" "$(sim_field 0 max)" "maximum at connect"

  # Absolute and relative moves, each ending Ok where the focuser is.
  move_to "$F1" 31000
  expect_eq "$(sim_field 0 position)" 31000 "position after the absolute move"
  setp "$F1.FOCUS_MOTION.FOCUS_INWARD=On"
  setp "$F1.REL_FOCUS_POSITION.FOCUS_RELATIVE_POSITION=500"
  await "\"$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==30500 && \"$F1.REL_FOCUS_POSITION._STATE\"==$OK"

  # Abort stops a long move part of the way.
  setp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=60000"
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  setp "$F1.FOCUS_ABORT_MOTION.ABORT=On"
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"!=$BUSY"
  await_sim 0 moving 0
  stopped=$(sim_field 0 position)
  (( stopped > 30500 && stopped < 60000 )) || fail "abort: stopped at $stopped"

  # A new target while moving: the focuser stops and goes there, no Alert.
  setp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=70000"
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  await_sim 0 moving 1
  setp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=31500"
  await "\"$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==31500 && \"$F1.ABS_FOCUS_POSITION._STATE\"==$OK"
  expect_eq "$(sim_field 0 position)" 31500 "position after the retarget"
  ! grep -q "Failed starting a move" "$work"/main.messages/* || fail "a retarget gave an Alert"

  # Sync, reverse, backlash (switched on, then its steps), maximum.
  setp "$F1.FOCUS_SYNC.FOCUS_SYNC_VALUE=12345"
  await_sim 0 position 12345
  await "\"$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==12345"
  setp "$F1.FOCUS_REVERSE_MOTION.INDI_ENABLED=On"
  await_sim 0 reverse 1
  setp "$F1.FOCUS_BACKLASH_TOGGLE.INDI_ENABLED=On"
  setp "$F1.FOCUS_BACKLASH_STEPS.FOCUS_BACKLASH_VALUE=40"
  await_sim 0 backlash 40
  setp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE=50000"
  await_sim 0 max 50000
  # The maximum: never below the position (12345), never beyond the
  # firmware's range (600000); presets span the whole travel.
  for refused in 10000 700000; do
    setp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE=$refused"
    await "\"$F1.FOCUS_MAX._STATE\"==$ALERT"
    expect_eq "$(sim_field 0 max)" 50000 "maximum after asking for $refused"
    expect_eq "$(getp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE")" 50000 "maximum shown after asking for $refused"
  done
  setp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE=600000"
  await_sim 0 max 600000
  setp "$F1.Presets.PRESET_1=550000"
  await "\"$F1.Presets.PRESET_1\"==550000"
  setp "$F1.FOCUS_MAX.FOCUS_MAX_VALUE=50000"
  await_sim 0 max 50000

  # At connect the focuser's settings win over the saved configuration; a
  # configuration loaded later is applied to the focuser. (The driver saves
  # backlash as it changes, so the saved file is edited while disconnected.)
  setp "$F1.FOCUS_BACKLASH_STEPS.FOCUS_BACKLASH_VALUE=10"
  await_sim 0 backlash 10
  setp "$F1.CONFIG_PROCESS.CONFIG_SAVE=On"
  await "\"$F1.CONFIG_PROCESS._STATE\"==$OK"
  setp "$F1.CONNECTION.DISCONNECT=On"
  await "\"$F1.CONNECTION.DISCONNECT\"==1"
  sed -i '/FOCUS_BACKLASH_VALUE/{n;s/[0-9][0-9]*/40/}' "$HOME/.indi/${F1}_config.xml"
  grep -A1 FOCUS_BACKLASH_VALUE "$HOME/.indi/${F1}_config.xml" | grep -q 40 || fail "editing the saved configuration"
  connect "$F1"
  sleep 1
  expect_eq "$(sim_field 0 backlash)" 10 "backlash after connecting with a saved configuration"
  expect_eq "$(getp "$F1.FOCUS_BACKLASH_STEPS.FOCUS_BACKLASH_VALUE")" 10 "backlash shown after connecting"
  setp "$F1.CONFIG_PROCESS.CONFIG_LOAD=On"
  await_sim 0 backlash 40

  # The temperature of the probe, read back.
  sim temperature 0 12.5
  await "abs(\"$F1.FOCUS_TEMPERATURE.TEMPERATURE\"-12.5)<0.1" # (each operand once: indi_eval waits for every copy)

  # Temperature compensation on the second focuser: -3 °C at 10 steps per
  # degree (threshold 1 °C) moves it 30 steps in.
  move_to "$F2" 40000
  setp "$F2.TEMP_COMPENSATION_SETTINGS.STEPS_PER_DEGREE;THRESHOLD;SETTLE=10;1;0"
  setp "$F2.TEMP_COMPENSATION.ENABLE=On"
  await "\"$F2.TEMP_COMPENSATION_REFERENCE._STATE\"==$OK && abs(\"$F2.TEMP_COMPENSATION_REFERENCE.REFERENCE\"-20)<0.05"
  sim temperature 1 19.5
  await "abs(\"$F2.FOCUS_TEMPERATURE.TEMPERATURE\"-19.5)<0.1"
  expect_eq "$(sim_field 1 target)" 40000 "compensation below the threshold"
  sim temperature 1 17
  await_sim 1 position 39970
  await "\"$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==39970 && \"$F2.ABS_FOCUS_POSITION._STATE\"==$OK"
  await "abs(\"$F2.TEMP_COMPENSATION_REFERENCE.REFERENCE\"-17)<0.05"

  # A move from the hand controller shows Busy.
  sim hand 0 out
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  sim hand 0 release
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"==$OK"

  # Unplugged during a move: Alert on both moves; back on the bus, it is
  # reconnected without a restart and shown Busy while it still moves (on
  # its battery), then Ok where it stopped.
  setp "$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=60000"
  await "\"$F2.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  sim unplug 1
  await "\"$F2.ABS_FOCUS_POSITION._STATE\"==$ALERT && \"$F2.REL_FOCUS_POSITION._STATE\"==$ALERT"
  expect_eq "$(sim_field 1 moving)" 1 "moving while unplugged"
  sim plug 1
  await "\"$F2.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  await "\"$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION\"==60000 && \"$F2.ABS_FOCUS_POSITION._STATE\"==$OK"
  move_to "$F2" 40100
  expect_eq "$(getp "$F2.CONNECTION.CONNECT")" On "connection after the return"
  check_server_log
}

chained_case() {
  export ZOR_SIM="pro/speed=4000/noprobe"
  start_server main indi_zor_focuser
  start_server relay "$F1@localhost:$port_main"
  port=$port_relay
  connect "$F1"
  move_to "$F1" 30300
  # Without a probe there is no temperature to offer, and the focuser stays connected.
  sleep 1
  [ -z "$(timeout 10 indi_getprop -p "$port" -t 1 "$F1.FOCUS_TEMPERATURE.*" 2>/dev/null)" ] ||
    fail "FOCUS_TEMPERATURE shown for a focuser without a probe"
  ! grep -q "Lost the focuser" "$work"/main.messages/* || fail "a missing probe was taken for a lost focuser"
  port=$port_main
  expect_eq "$(getp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION")" 30300 "position on the first server"
  # The version the driver reports is the one its drivers file lists.
  listed=$(sed -n 's:.*<version>\(.*\)</version>.*:\1:p' "$(dirname "$driver")/indi_zor_focuser.xml")
  expect_eq "$(getp "$F1.DRIVER_INFO.DRIVER_VERSION")" "$listed" "driver version"

  # A second driver (its virtual focuser has the same serial number) is
  # told that the focuser is in use.
  start_server other indi_zor_focuser
  port=$port_other
  setp "$F1.CONNECTION.CONNECT=On"
  await "\"$F1.CONNECTION._STATE\"==$ALERT"
  grep -q "in use by indi_zor_focuser (process" "$work"/other.messages/* || fail "no message that the focuser is in use"
  check_server_log
}

# Virtual Bluetooth focusers on a private bus; sets DBUS_SYSTEM_BUS_ADDRESS.
start_bluetooth() { # ZOR_BLE_SIM description
  ZOR_BLUEZ_SIM=$bluez_sim ZOR_BLE_SIM="$1" "$bus_script" >"$work/bus.log" 2>&1 &
  pids+=("$!")
  for _ in $(seq 100); do grep -q '^DBUS_SYSTEM_BUS_ADDRESS=' "$work/bus.log" && break; sleep 0.1; done
  export DBUS_SYSTEM_BUS_ADDRESS=$(sed -n 's/^DBUS_SYSTEM_BUS_ADDRESS=//p' "$work/bus.log")
  [ -n "$DBUS_SYSTEM_BUS_ADDRESS" ] || fail "no private bus"
}
bluez_control() { # METHOD ARGUMENTS... (dbus-send's typed arguments)
  dbus-send --bus="$DBUS_SYSTEM_BUS_ADDRESS" --print-reply --dest=com.zor.Sim /com/zor/Sim "com.zor.Sim.$1" "${@:2}" \
    >/dev/null
}

bluetooth_case() {
  export ZOR_SIM="pro/speed=1000"
  start_bluetooth "pro@382/name=Garage/battery=77/speed=2000,pro@382/name=Shed"
  start_server main indi_zor_focuser
  port=$port_main
  connect "$F1"
  expect_eq "$(getp "$F1.ZOR_IDENTITY.LINK")" USB "link of the first device"
  # The USB focuser moves for the rest of the case; its position updates
  # must keep coming while Bluetooth scans, connects and fails.
  setp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=100000"
  await "\"$F1.ABS_FOCUS_POSITION._STATE\"==$BUSY"

  scan_bluetooth() {
    setp "$F1.ZOR_SCAN.BLUETOOTH=On"
    await "\"$F1.ZOR_SCAN._STATE\"==$OK"
  }
  gaps_during "$F1" "a Bluetooth scan" scan_bluetooth
  # One device per focuser found, each with a focuser of its own.
  await "\"$F2.ZOR_FOCUSER._STATE\"!=$ALERT && \"ZOR Focuser 3.CONNECTION.CONNECT\"==0"
  setp "$F2.ZOR_FOCUSERS.ble:Garage=On"
  setp "ZOR Focuser 3.ZOR_FOCUSERS.ble:Shed=On"

  # A focuser that never completes its connection: CONNECTION stays Busy
  # until the library gives up, then Alert; nothing else waits for it.
  bluez_control SetFault string:Shed string:no-notify
  failing_connect() {
    setp "ZOR Focuser 3.CONNECTION.CONNECT=On"
    await "\"ZOR Focuser 3.CONNECTION._STATE\"==$BUSY"
    await "\"ZOR Focuser 3.CONNECTION._STATE\"==$ALERT"
  }
  gaps_during "$F1" "a failing Bluetooth connect" failing_connect

  connect "$F2"
  expect_eq "$(getp "$F2.ZOR_IDENTITY.LINK")" Bluetooth "link"
  expect_eq "$(getp "$F2.ZOR_BATTERY.LEVEL")" 77 "battery level"
  move_to "$F2" 30250

  # The link drops during a move: Alert on both moves at once, never a move
  # left Busy; the driver reconnects once the focuser is back.
  setp "$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION=60000"
  await "\"$F2.ABS_FOCUS_POSITION._STATE\"==$BUSY"
  drop_and_regain() {
    local dropped; dropped=$(now)
    bluez_control DropLink string:Garage
    await "\"$F2.ABS_FOCUS_POSITION._STATE\"==$ALERT && \"$F2.REL_FOCUS_POSITION._STATE\"==$ALERT" 5
    echo "Alert $(elapsed_ms "$dropped") ms after the link dropped"
    await "\"$F2.ABS_FOCUS_POSITION._STATE\"!=$ALERT" 60
  }
  gaps_during "$F1" "a dropped Bluetooth link and its recovery" drop_and_regain
  grep -q "Reconnected to ble:Garage" "$work"/main.messages/* || fail "no reconnection logged"
  regained=$(getp "$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION")
  move_to "$F2" $(( regained + 100 ))
  check_server_log
}

# Two focusers keep their own device across a restart of the driver, each
# device's choice saved (the first device is given the second focuser), and
# their own position across a power cycle of both.
restart_case() {
  export ZOR_SIM="2*pro/speed=4000"
  start_server main indi_zor_focuser
  port=$port_main
  await "\"$F2.CONNECTION.CONNECT\"==0"
  first=$(getp "$F1.ZOR_FOCUSER.KEY") second=$(getp "$F2.ZOR_FOCUSER.KEY")
  [ -n "$first" ] && [ -n "$second" ] && [ "$first" != "$second" ] || fail "default choices: $first, $second"
  setp "$F1.ZOR_FOCUSER.KEY=$second"
  await "\"$F1.ZOR_FOCUSER._STATE\"==$OK"
  setp "$F2.ZOR_FOCUSER.KEY=$first"
  connect "$F1"
  connect "$F2"
  move_to "$F1" 31000
  move_to "$F2" 32000
  kill "${pids[-1]}"; wait "${pids[-1]}" 2>/dev/null || true

  start_server again indi_zor_focuser
  port=$port_again
  await "\"$F2.CONNECTION.CONNECT\"==0"
  expect_eq "$(getp "$F1.ZOR_FOCUSER.KEY")" "$second" "first device's focuser after the restart"
  expect_eq "$(getp "$F2.ZOR_FOCUSER.KEY")" "$first" "second device's focuser after the restart"
  connect "$F1"
  connect "$F2"
  # The virtual focusers lived in the first driver process: these are
  # powered up afresh, and each is given back its own position.
  expect_eq "$(getp "$F1.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION")" 31000 "first device's position after a power cycle"
  expect_eq "$(getp "$F2.ABS_FOCUS_POSITION.FOCUS_ABSOLUTE_POSITION")" 32000 "second device's position after a power cycle"
  check_server_log
}

"${case_name}_case"
echo "INDI $case_name: passed"
