"""The package over USB, against the virtual focusers that ctest describes in
ZOR_SIM: 0 a fast ZOR Pro at 12.5 °C with the alias "north", 1 a slow ZOR
Pro, 2 an early focuser without model string; ZOR_SIM_CONTROL is their
control socket."""

import _thread
import os
import socket
import threading
from ctypes import byref, c_int

import pytest

import zorfocuser
from zorfocuser import _library

FAST, SLOW, OLD = 0, 1, 2


def sim_control(command):
    """Sends one command to the virtual focusers of this process (ZOR_SIM_CONTROL)."""
    with socket.socket(socket.AF_UNIX) as control:
        control.connect(os.environ["ZOR_SIM_CONTROL"])
        control.sendall(command.encode() + b"\n")
        answer = control.makefile().readline()
    assert answer.startswith("ok"), answer


def library_position(id):
    """ZORGetPosition's own answer: 9 tells the library closed the focuser."""
    step = c_int()
    return _library.status("ZORGetPosition", id, byref(step))


def test_enumeration_lists_each_focuser_and_leaves_it_closed():
    found = zorfocuser.focusers()
    assert [(f.id, f.name, f.model) for f in found] == [
        (FAST, "ZOR(north)", "ZOR Pro"), (SLOW, "ZOR", "ZOR Pro"), (OLD, "ZOR", None)]
    assert (found[FAST].serial, found[OLD].serial) == ("5a4f525000000100", None)
    assert all(library_position(f.id) == 9 for f in found)


def test_context_manager_opens_and_closes():
    with zorfocuser.open(FAST) as f:
        assert f.id == FAST
        assert (f.model, str(f.firmware_version), f.serial) == ("ZOR Pro", "3.8.2", "5a4f525000000100")
        assert f.temperature == 12.5
        assert library_position(FAST) == 0
    assert library_position(FAST) == 9
    with pytest.raises(zorfocuser.NotConnected) as closed:
        f.position
    assert closed.value.code == 9


def test_waited_move_ends_at_the_target_and_stop_ends_a_move_short():
    with zorfocuser.open(FAST) as fast, zorfocuser.open(SLOW) as slow:
        target = fast.position + 1500
        assert fast.move_to(target, wait=True, timeout=30) == target
        assert not fast.is_moving

        start = slow.position
        slow.move_to(start + 20000)
        assert slow.is_moving
        slow.stop()
        assert start <= slow.wait(timeout=10) < start + 20000
        assert not slow.is_moving


def interrupted_after(seconds):
    def move(focuser, target):
        threading.Timer(seconds, _thread.interrupt_main).start()
        focuser.move_to(target, wait=True)
    return move


# Ctrl-C comes during the move command (which takes about 0.2 s) or during the wait.
@pytest.mark.parametrize("cut_short, raised", [
    (lambda f, target: f.move_to(target, wait=True, timeout=0.2), TimeoutError),
    (interrupted_after(0.05), KeyboardInterrupt),
    (interrupted_after(0.5), KeyboardInterrupt),
])
def test_a_wait_cut_short_stops_the_focuser(cut_short, raised):
    with zorfocuser.open(SLOW) as slow:
        target = slow.position + 20000
        with pytest.raises(raised):
            cut_short(slow, target)
        assert not slow.is_moving
        assert slow.position < target


@pytest.mark.parametrize("setting, value", [
    ("backlash", 40), ("max_step", 500000), ("reversed", True), ("beep", True),
])
def test_setters_read_back(setting, value):
    with zorfocuser.open(FAST) as f:
        before = getattr(f, setting)
        setattr(f, setting, value)
        assert getattr(f, setting) == value
        setattr(f, setting, before)
        assert getattr(f, setting) == before


def test_sync_renames_the_current_position():
    with zorfocuser.open(FAST) as f:
        f.sync(12345)
        assert f.position == 12345


def raises_with(family, code, name, action):
    with pytest.raises(family) as raised:
        action()
    error = raised.value
    assert (error.code, error.name) == (code, name)
    assert isinstance(error, zorfocuser.ZorError)
    assert f"{name} ({code}): {error.meaning}" in str(error)
    return error


def test_failures_raise_their_family_with_code_name_and_meaning():
    error = raises_with(zorfocuser.InvalidId, 2, "ZOR_ERROR_INVALID_ID", lambda: zorfocuser.open(7))
    assert error.meaning == "no focuser has this ID"
    with zorfocuser.open(FAST) as f:
        raises_with(zorfocuser.InvalidValue, 3, "ZOR_ERROR_INVALID_VALUE", lambda: setattr(f, "backlash", 300))
        assert f.backlash != 300
        raises_with(ValueError, 3, "ZOR_ERROR_INVALID_VALUE", lambda: f.move_to(2**40))
        raises_with(zorfocuser.NotSupported, 8, "ZOR_ERROR_NOT_SUPPORTED", f.all_info)
    with zorfocuser.open(OLD) as old:
        raises_with(zorfocuser.NotSupported, 8, "ZOR_ERROR_NOT_SUPPORTED", old.battery)
    sim_control(f"fail-opens {OLD} 1 denied")
    raises_with(zorfocuser.NotConnected, 4, "ZOR_ERROR_REMOVED", lambda: zorfocuser.open(OLD))
    with zorfocuser.open(SLOW) as slow:
        slow.move_to(slow.position + 20000)
        raises_with(zorfocuser.Moving, 5, "ZOR_ERROR_MOVING", lambda: setattr(slow, "backlash", 10))
        slow.stop()


class NoLibrary:
    def __getattr__(self, name):
        raise AssertionError(f"{name} was called")


@pytest.mark.parametrize("action", [
    lambda f: f.move_to("31000"),
    lambda f: f.move_to(31000.0),
    lambda f: f.move_to(True),
    lambda f: f.move_to(31000, wait="yes"),
    lambda f: f.move_to(31000, wait=True, timeout="5"),
    lambda f: f.sync(None),
    lambda f: setattr(f, "backlash", "40"),
    lambda f: setattr(f, "max_step", 5e5),
    lambda f: setattr(f, "reversed", 1),
    lambda f: setattr(f, "beep", None),
    lambda f: zorfocuser.open("0"),
    lambda f: zorfocuser.ble.scan("2"),
    lambda f: zorfocuser.ble.connect(b"Garage"),
])
def test_wrong_argument_types_raise_type_error_before_any_call(action, monkeypatch):
    with zorfocuser.open(FAST) as f:
        monkeypatch.setattr(_library, "lib", NoLibrary())
        with pytest.raises(TypeError):
            action(f)
        monkeypatch.undo()
