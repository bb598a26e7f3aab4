"""Bluetooth LE focusers: scan for them, connect and pair by name.

    import zorfocuser
    print(zorfocuser.ble.scan(2))
    with zorfocuser.ble.connect("Garage", on_link_lost=lambda f: print("lost", f)) as f:
        f.move_to(31500, wait=True)

On Linux this goes through BlueZ on the system bus (DBUS_SYSTEM_BUS_ADDRESS
when set). The library hands out Bluetooth IDs as a stack: close focusers in
the reverse order of connecting them.
"""

import contextlib
from ctypes import byref, c_int
from dataclasses import dataclass

from . import _abi
from ._library import as_int, as_seconds, as_text, call, decode, fail, status
from .errors import ZorError, code_of
from .focuser import Focuser

# The most entries one scan reports.
_MAX_LISTED = 64


@dataclass(frozen=True)
class Advertisement:
    """A focuser seen advertising: its name, address and signal strength (dBm)."""

    name: str
    address: str
    rssi: int


def scan(seconds=2.0):
    """The peripherals that advertise a name during `seconds`, as Advertisement
    entries in the order they were first seen."""
    seconds = as_seconds(seconds, "seconds")
    milliseconds = as_int(round(seconds * 1000), "seconds")
    found = (_abi.BLE_DEVICE_INFO * _MAX_LISTED)()
    count = c_int(0)
    call("ZORBLEScan", milliseconds, found, _MAX_LISTED, byref(count))
    return [Advertisement(decode(d.Name), decode(d.Address), d.RSSI)
            for d in found[:max(0, min(count.value, _MAX_LISTED))]]


def connect(name, scan_seconds=2.0, on_link_lost=None):
    """Scans for the focuser that advertises `name`, connects and pairs; returns
    the paired Focuser, which close() (or leaving a with block) disconnects.

    on_link_lost, if given, is called with the focuser on a thread of its own
    when the link is lost; from then on its calls raise NotConnected.
    """
    name = as_text(name, "name")
    if on_link_lost is not None and not callable(on_link_lost):
        raise TypeError("on_link_lost must be callable")
    seen = scan(scan_seconds)
    match = next((a for a in seen if a.name == name), None)
    if match is None:
        names = ", ".join(a.name for a in seen) or "none"
        fail("ZORBLEConnect", code_of("ZOR_ERROR_BLE_CONNECT_FAILED"),
             f'no focuser named "{name}" advertises (seen: {names})')
    id = c_int(-1)
    try:
        call("ZORBLEConnect", match.name.encode(), match.address.encode(), byref(id))
    except KeyboardInterrupt:
        # Ctrl-C during the connect is raised once it returned: end what it made.
        status("ZORBLEDisconnect", id.value)
        raise
    focuser = Focuser(id.value, bluetooth_name=name)
    focuser.on_link_lost = on_link_lost
    try:
        focuser._watch_link()
        focuser._call("ZORBLEPair")
    except BaseException:
        with contextlib.suppress(ZorError):
            focuser.close()
        raise
    return focuser
