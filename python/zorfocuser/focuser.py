"""One focuser, open over USB or paired over Bluetooth, and the list of attached ones."""

import atexit
import contextlib
import threading
import time
from ctypes import byref, c_bool, c_float, c_int, c_ubyte
from dataclasses import dataclass
from typing import NamedTuple, Optional

from . import _abi
from ._library import as_bool, as_int, as_seconds, call, decode, fail, status
from .errors import ZorError, code_of

# How often a waiting move_to asks whether the focuser still moves.
_POLL_SECONDS = 0.05

# Focusers opened through this package and not closed yet, by ID.
_open_focusers = {}


class FirmwareVersion(NamedTuple):
    major: int
    minor: int
    build: int

    def __str__(self):
        return f"{self.major}.{self.minor}.{self.build}"


@dataclass(frozen=True)
class FocuserInfo:
    """A focuser found attached: its ID for open(), the name the library
    gives it ("ZOR" or "ZOR(alias)"), model, serial number and step range
    (None where they cannot be read, for example when another program holds it)."""

    id: int
    name: str
    model: Optional[str]
    serial: Optional[str]
    max_step: Optional[int]


@dataclass(frozen=True)
class Battery:
    """The battery record: temperature in °C, state of charge in percent,
    the other values raw as the focuser sends them."""

    temperature: int
    voltage: int
    charge_current: int
    percentage: int
    discharge_current: int
    health: int
    charge_voltage: int

    @classmethod
    def _from(cls, record):
        return cls(record.battery_temp, record.battery_vol, record.battery_charge_curr,
                   record.battery_percentage, record.battery_discharge_curr, record.battery_health,
                   record.battery_charge_vol)


@dataclass(frozen=True)
class AllInfo:
    """Everything one Bluetooth all-status query returns."""

    is_moving: bool
    backlash: int
    position: int
    temperature: float
    beep: bool
    reversed: bool
    hand_control_moving: bool
    hand_controller: bool
    max_step: int
    led: bool
    status_bytes: bytes
    battery: Battery


class Focuser:
    """An open focuser. Use zorfocuser.open(id) or zorfocuser.ble.connect(name);
    as a context manager it is closed (over Bluetooth: disconnected) on exit.

    Every failing call raises a ZorError; wrong argument types raise TypeError
    before anything is sent.
    """

    def __init__(self, id, bluetooth_name=None):
        self._id = id
        self._bluetooth_name = bluetooth_name
        self._closed = False
        self._link_lost = threading.Event()
        self._state_callback = None
        # Called with this focuser, on a thread of its own, when the
        # Bluetooth link is lost.
        self.on_link_lost = None
        _open_focusers[id] = self

    def __repr__(self):
        link = f'Bluetooth "{self._bluetooth_name}"' if self.is_bluetooth else "USB"
        state = ", closed" if self._closed else ""
        return f"<zorfocuser.Focuser {self._id} ({link}){state}>"

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # ---------------------------------------------------------------- identity

    @property
    def id(self):
        return self._id

    @property
    def is_bluetooth(self):
        return self._bluetooth_name is not None

    @property
    def bluetooth_name(self):
        """The advertised name it was connected by; None over USB."""
        return self._bluetooth_name

    @property
    def firmware_version(self):
        parts = [c_ubyte(), c_ubyte(), c_ubyte()]
        self._call("ZORGetFirmwareVersion", *(byref(p) for p in parts))
        return FirmwareVersion(*(p.value for p in parts))

    @property
    def serial(self):
        """The serial number as 16 hex digits."""
        sn = _abi.ZOR_SN()
        self._call("ZORGetSerialNumber", byref(sn))
        return bytes(sn.id).hex()

    @property
    def model(self):
        """"ZOR Pro", "ZORN", or None for firmware that does not name its model."""
        model = _abi.ZOR_TYPE()
        self._call("ZORGetType", byref(model))
        return decode(model.Type) or None

    # ------------------------------------------------------------------ motion

    @property
    def position(self):
        return self._read("ZORGetPosition", c_int)

    @property
    def is_moving(self):
        """True while the motor turns, for a move or the hand controller."""
        moving, hand = c_bool(), c_bool()
        self._call("ZORIsMoving", byref(moving), byref(hand))
        return moving.value

    def move_to(self, step, wait=False, timeout=None):
        """Starts a move to an absolute step (clamped to the maximum step).

        With wait, returns the position once the focuser stopped. A timeout
        (seconds) that passes first stops the focuser and raises TimeoutError;
        Ctrl-C while waiting stops it too.
        """
        step = as_int(step, "step")
        as_bool(wait, "wait")
        timeout = as_seconds(timeout, "timeout")
        if not wait:
            self._call("ZORMove", step)
            return None
        # The move command itself takes a while: Ctrl-C during it stops too.
        with self._stopped_on_interrupt():
            self._call("ZORMove", step)
            return self.wait(timeout)

    def wait(self, timeout=None):
        """Waits until the focuser stops and returns its position; a timeout
        stops the focuser and raises TimeoutError, as Ctrl-C stops it."""
        timeout = as_seconds(timeout, "timeout")
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._stopped_on_interrupt():
            while self.is_moving:
                if deadline is not None and time.monotonic() >= deadline:
                    self.stop()
                    raise TimeoutError(f"focuser {self._id} still moved after {timeout:g} s; "
                                       f"stopped at {self.position}")
                time.sleep(_POLL_SECONDS)
        return self.position

    def stop(self):
        self._call("ZORStop")

    def sync(self, step):
        """Makes the current position step `step`, without moving."""
        self._call("ZORResetPostion", as_int(step, "step"))

    # -------------------------------------------------------------- settings

    @property
    def temperature(self):
        """The probe's temperature in °C."""
        return round(self._read("ZORGetTemp", c_float), 2)

    @property
    def max_step(self):
        return self._read("ZORGetMaxStep", c_int)

    @max_step.setter
    def max_step(self, value):
        self._call("ZORSetMaxStep", as_int(value, "max_step"))

    @property
    def backlash(self):
        return self._read("ZORGetBacklash", c_int)

    @backlash.setter
    def backlash(self, value):
        self._call("ZORSetBacklash", as_int(value, "backlash"))

    @property
    def reversed(self):
        return self._read("ZORGetReverse", c_bool)

    @reversed.setter
    def reversed(self, value):
        self._call("ZORSetReverse", as_bool(value, "reversed"))

    @property
    def beep(self):
        return self._read("ZORGetBeep", c_bool)

    @beep.setter
    def beep(self, value):
        self._call("ZORSetBeep", as_bool(value, "beep"))

    # ---------------------------------------------------------------- status

    def battery(self):
        """The battery record, on focusers that have a battery."""
        record = _abi.ZOR_BATTERY_INFO()
        self._call("ZORGetBatteryInfo", byref(record))
        return Battery._from(record)

    def all_info(self):
        """Motion, settings and battery in one query (Bluetooth only)."""
        if not self.is_bluetooth:
            fail("ZORBLEgetAllInfo", code_of("ZOR_ERROR_NOT_SUPPORTED"),
                 "the all-status query exists over Bluetooth only")
        r = _abi.ZOR_ALL_INFO()
        self._call("ZORBLEgetAllInfo", byref(r))
        return AllInfo(bool(r.IsMoving), r.Backlash, r.Position, round(r.Temperature, 2), bool(r.Beep),
                       bool(r.Reverse), bool(r.HandControlMoving), bool(r.HandController), r.MaxStep,
                       bool(r.LedState), bytes(r.StatusBytes), Battery._from(r.Battery))

    @property
    def link_lost(self):
        """True once the Bluetooth link was lost; calls then raise NotConnected."""
        return self._link_lost.is_set()

    # ------------------------------------------------------------- lifecycle

    def close(self):
        """Closes the focuser (a USB focuser that still moves is stopped) or
        ends its Bluetooth connection. Closing twice does nothing."""
        if self._closed:
            return
        self._closed = True
        if _open_focusers.get(self._id) is self:
            del _open_focusers[self._id]
        call("ZORBLEDisconnect" if self.is_bluetooth else "ZORClose", self._id)

    def _watch_link(self):
        # Runs on the library's Bluetooth thread: it only records the loss and
        # hands the handler to a thread of its own, so a handler that calls
        # the library cannot block the thread that delivers the answers.
        def on_state(connected):
            if connected or self._link_lost.is_set():
                return
            self._link_lost.set()
            handler = self.on_link_lost
            if handler is not None:
                threading.Thread(target=handler, args=(self,), name="zorfocuser-link-lost", daemon=True).start()

        self._state_callback = _abi.CONN_STATE_CALLBACK(on_state)  # the library keeps only the pointer
        self._call("ZORBLERegConnStateCallback", self._state_callback)

    @contextlib.contextmanager
    def _stopped_on_interrupt(self):
        try:
            yield
        except KeyboardInterrupt:
            with contextlib.suppress(ZorError):
                self.stop()
            raise

    def _call(self, name, *args):
        if self._closed:
            code = code_of("ZOR_ERROR_BLE_NOT_CONNECTED" if self.is_bluetooth else "ZOR_ERROR_CLOSED")
            fail(name, code, "closed by this program")
        # Over a lost link the library answers status reads from the last
        # record it got, which would show a move running for ever.
        if self._link_lost.is_set():
            fail(name, code_of("ZOR_ERROR_BLE_NOT_CONNECTED"), "the Bluetooth link was lost")
        try:
            call(name, self._id, *args)
        except ZorError as e:
            if self._link_lost.is_set() and e.detail is None:
                e.detail = "the Bluetooth link was lost"
            raise

    def _read(self, name, ctype):
        value = ctype()
        self._call(name, byref(value))
        return value.value


def focusers():
    """The focusers attached over USB, as FocuserInfo entries."""
    found = []
    for index in range(status("ZORGetNum")):
        id = c_int(-1)
        if status("ZORGetID", index, byref(id)) == _abi.SUCCESS:
            found.append(_describe(id.value))
    return found


def open(id):
    """Opens the USB focuser with this ID (as focusers() lists it) and returns it."""
    id = as_int(id, "id")
    # IDs exist only once the library has enumerated; a program may open a
    # focuser it knows the ID of without listing first.
    code = status("ZOROpen", id)
    if code == code_of("ZOR_ERROR_INVALID_ID"):
        status("ZORGetNum")
        code = status("ZOROpen", id)
    if code != _abi.SUCCESS:
        fail("ZOROpen", code)
    return Focuser(id)


def _describe(id):
    """Reads what focusers() lists; a focuser this package did not have open
    is opened for it and closed again."""
    opened_here = id not in _open_focusers
    if opened_here and status("ZOROpen", id) != _abi.SUCCESS:
        return FocuserInfo(id, decode(_property(id).Name), None, None, None)
    try:
        info = _property(id)
        model, sn = _abi.ZOR_TYPE(), _abi.ZOR_SN()
        model_ok = status("ZORGetType", id, byref(model)) == _abi.SUCCESS
        serial_ok = status("ZORGetSerialNumber", id, byref(sn)) == _abi.SUCCESS
        return FocuserInfo(id, decode(info.Name), (decode(model.Type) or None) if model_ok else None,
                           bytes(sn.id).hex() if serial_ok else None, info.MaxStep)
    finally:
        if opened_here:
            status("ZORClose", id)


def _property(id):
    info = _abi.ZOR_INFO()
    status("ZORGetProperty", id, byref(info))
    return info


def _close_at_exit():
    # Bluetooth links end before the interpreter does, so no state callback
    # reaches it half torn down. A USB focuser that still moves stays open:
    # its move carries on, as it would for a C program that exits.
    for focuser in list(_open_focusers.values()):
        with contextlib.suppress(ZorError):
            if focuser.is_bluetooth or not focuser.is_moving:
                focuser.close()


atexit.register(_close_at_exit)
