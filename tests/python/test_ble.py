"""zorfocuser.ble against virtual Bluetooth focusers (zor_bluez_sim) on a
private bus that scripts/ble-sim-bus.sh starts for this file: "Garage", a
ZOR Pro with its battery at 80 %."""

import os
import subprocess
import threading

import pytest

import zorfocuser
from conftest import required_environment

DEVICES = "pro@382/name=Garage/battery=80/speed=20000"
SCAN_SECONDS = 0.5


@pytest.fixture(scope="module")
def bus():
    """The private bus's address; the library reaches org.bluez there."""
    environment = dict(os.environ, ZOR_BLE_SIM=DEVICES, ZOR_BLUEZ_SIM=required_environment("ZOR_BLUEZ_SIM"))
    script = subprocess.Popen([required_environment("ZOR_BLE_SIM_BUS_SCRIPT")], env=environment,
                              stdout=subprocess.PIPE, text=True)
    line = script.stdout.readline().strip()
    assert line.startswith("DBUS_SYSTEM_BUS_ADDRESS="), "the private bus did not start"
    address = line.split("=", 1)[1]
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address
    yield address
    script.terminate()
    script.wait(timeout=10)


def sim_fault(bus, method, *arguments):
    subprocess.run(["dbus-send", f"--bus={bus}", "--print-reply", "--dest=com.zor.Sim", "/com/zor/Sim",
                    f"com.zor.Sim.{method}", *arguments], check=True, capture_output=True, timeout=10)


def test_scan_lists_the_advertising_focuser(bus):
    assert zorfocuser.ble.scan(SCAN_SECONDS) == [zorfocuser.ble.Advertisement("Garage", "C0:FF:EE:00:00:01", -60)]


def test_paired_focuser_moves_reports_and_sees_its_link_lost(bus):
    lost = threading.Event()
    with zorfocuser.ble.connect("Garage", scan_seconds=SCAN_SECONDS, on_link_lost=lambda f: lost.set()) as f:
        assert (f.id, f.is_bluetooth, f.model) == (50, True, "ZOR Pro")
        assert f.move_to(31500, wait=True, timeout=30) == 31500
        assert f.battery().percentage == 80
        info = f.all_info()
        assert (info.position, info.is_moving, info.battery.percentage) == (31500, False, 80)

        # A move under way when the link goes is not shown running for ever.
        f.move_to(600000)
        sim_fault(bus, "DropLink", "string:Garage")
        assert lost.wait(10)
        assert f.link_lost
        with pytest.raises(zorfocuser.NotConnected) as raised:
            f.wait(timeout=10)
        assert (raised.value.code, raised.value.name) == (53, "ZOR_ERROR_BLE_NOT_CONNECTED")


def test_a_name_nobody_advertises_fails_to_connect_and_names_those_seen(bus):
    with pytest.raises(zorfocuser.NotConnected) as raised:
        zorfocuser.ble.connect("Attic", scan_seconds=SCAN_SECONDS)
    assert raised.value.code == 52
    assert "seen: Garage" in str(raised.value)
