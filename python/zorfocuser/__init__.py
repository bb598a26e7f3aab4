"""zorfocuser: ZOR motorised focusers from Python, over the libZORfocuser library.

    import zorfocuser
    print(zorfocuser.focusers())
    with zorfocuser.open(0) as f:
        f.move_to(12000, wait=True)
        print(f.position, f.temperature)

Bluetooth focusers: zorfocuser.ble. Every failing call raises a ZorError
(or one of its families below) naming the library's result code. The
library is the one this copy of the package was built or installed with;
the environment variable ZOR_LIBRARY names another.
"""

from . import ble
from ._library import path as library_path
from ._library import status as _status
from .errors import (BluetoothUnavailable, CommunicationError, InvalidId, InvalidValue, Moving, NotConnected,
                     NotSupported, PairingError, ZorError)
from .focuser import AllInfo, Battery, FirmwareVersion, Focuser, FocuserInfo, focusers, open


def sdk_version():
    """The library's version string, e.g. "1, 7, 7, 0"."""
    return _status("ZORGetSDKVersion").decode()


__all__ = [
    "AllInfo", "Battery", "BluetoothUnavailable", "CommunicationError", "FirmwareVersion", "Focuser",
    "FocuserInfo", "InvalidId", "InvalidValue", "Moving", "NotConnected", "NotSupported", "PairingError",
    "ZorError", "ble", "focusers", "library_path", "open", "sdk_version",
]
