"""ZorError and its families: every result code other than success raises one.

The name and meaning of each code come from the library's own table
(ZOR_result_codes.h, written into _abi at build time), so a message here says
what zorctl and the INDI driver say.
"""

from . import _abi

_BY_VALUE = {value: (name, meaning) for value, name, meaning in _abi.RESULT_CODES}
_VALUE_OF = {name: value for value, name, _ in _abi.RESULT_CODES}


class ZorError(Exception):
    """A call to the focuser library failed.

    code is the library's result code, name its symbolic name (for example
    "ZOR_ERROR_MOVING") and meaning the library's plain text for it; function
    is the library call that answered, detail what this package adds.
    """

    def __init__(self, code, function=None, detail=None):
        self.code = code
        self.name, self.meaning = _BY_VALUE.get(code, (None, "an unknown result code"))
        self.function = function
        self.detail = detail
        super().__init__(str(self))

    def __str__(self):
        text = f"{self.name or 'result'} ({self.code}): {self.meaning}"
        if self.function:
            text = f"{self.function}: {text}"
        if self.detail:
            text = f"{text}; {self.detail}"
        return text

    def __reduce__(self):
        return type(self), (self.code, self.function, self.detail)


class InvalidId(ZorError, LookupError):
    """No focuser has this ID or index."""


class NotConnected(ZorError):
    """The focuser is not open, was unplugged, or its Bluetooth link is gone."""


class Moving(ZorError):
    """Refused because the focuser is moving."""


class InvalidValue(ZorError, ValueError):
    """A value outside what the focuser takes; nothing was sent."""


class NotSupported(ZorError):
    """This focuser's model, firmware or link lacks the feature."""


class CommunicationError(ZorError):
    """A transfer failed, or the focuser's answer could not be used."""


class PairingError(ZorError):
    """Pairing over Bluetooth, or clearing it, failed."""


class BluetoothUnavailable(ZorError):
    """Bluetooth cannot be used on this computer (no BlueZ, adapter or power)."""


_FAMILIES = {
    InvalidId: ("ZOR_ERROR_INVALID_INDEX", "ZOR_ERROR_INVALID_ID"),
    NotConnected: ("ZOR_ERROR_REMOVED", "ZOR_ERROR_CLOSED", "ZOR_ERROR_BLE_CONNECT_FAILED",
                   "ZOR_ERROR_BLE_NOT_CONNECTED"),
    Moving: ("ZOR_ERROR_MOVING",),
    InvalidValue: ("ZOR_ERROR_INVALID_VALUE",),
    NotSupported: ("ZOR_ERROR_NOT_SUPPORTED",),
    CommunicationError: ("ZOR_ERROR_ERROR_STATE", "ZOR_ERROR_GENERAL_ERROR", "ZOR_ERROR_BATTERY_DATA",
                         "ZOR_ERROR_BAD_DATA", "ZOR_ERROR_BLE_RESPONSE", "ZOR_ERROR_BLE_SEND",
                         "ZOR_ERROR_BLE_TIMEOUT", "ZOR_ERROR_BLE_UPDATE_ACK"),
    PairingError: ("ZOR_ERROR_BLE_PAIR_FAILED", "ZOR_ERROR_BLE_CLEAR_PAIR_FAILED",
                   "ZOR_ERROR_BLE_PAIR_REJECTED", "ZOR_ERROR_BLE_NEW_CONNECTION"),
    BluetoothUnavailable: ("ZOR_ERROR_BLE_UNAVAILABLE",),
}
_CLASS_OF = {_VALUE_OF[name]: family for family, names in _FAMILIES.items() for name in names}


def code_of(name):
    """The value of a result code given by its name, e.g. code_of("ZOR_ERROR_MOVING") == 5."""
    return _VALUE_OF[name]


def error_for(code, function=None, detail=None):
    """The exception for a non-zero result code: its family's class, else ZorError."""
    return _CLASS_OF.get(code, ZorError)(code, function, detail)
