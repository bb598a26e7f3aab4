"""Loading libZORfocuser, calling it, and checking arguments before a call.

The library is the one named by ZOR_LIBRARY when that is set; otherwise the
one this copy of the package was made for (_location.LIBRARY, written by the
build: the built library in the build tree, the installed one, relative to
the package, after cmake --install).
"""

import ctypes
import numbers
import os

from . import _abi
from .errors import InvalidValue, code_of, error_for

_INT_MIN, _INT_MAX = -(2**31), 2**31 - 1


def _library_path():
    override = os.environ.get("ZOR_LIBRARY")
    if override:
        return override
    from ._location import LIBRARY

    return os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), LIBRARY))


def _load(path):
    try:
        lib = ctypes.CDLL(path)
    except OSError as e:
        raise ImportError(f"zorfocuser cannot load the focuser library {path}: {e} "
                          "(ZOR_LIBRARY names another one)", path=path) from e
    for name, (restype, argtypes) in _abi.PROTOTYPES.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


path = _library_path()
lib = _load(path)


def status(name, *args):
    """Calls the library function `name` and returns what it returns."""
    return getattr(lib, name)(*args)


def call(name, *args):
    """Calls the library function `name`; a non-zero result raises its ZorError."""
    code = status(name, *args)
    if code != _abi.SUCCESS:
        raise error_for(code, name)


def fail(name, code, detail=None):
    """Raises the error of result `code` as if `name` had answered it."""
    raise error_for(code, name, detail)


def as_int(value, what):
    """value as a C int: TypeError for anything but an integer (bool included),
    InvalidValue when it does not fit."""
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"{what} must be an int, not {type(value).__name__}")
    value = int(value)
    if not _INT_MIN <= value <= _INT_MAX:
        raise InvalidValue(code_of("ZOR_ERROR_INVALID_VALUE"), None, f"{what} {value} is out of range")
    return value


def as_bool(value, what):
    if not isinstance(value, bool):
        raise TypeError(f"{what} must be True or False, not {type(value).__name__}")
    return value


def as_seconds(value, what):
    if value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise TypeError(f"{what} must be a number of seconds, not {type(value).__name__}")
    if not value >= 0:
        raise ValueError(f"{what} must not be negative")
    return float(value)


def as_text(value, what):
    if not isinstance(value, str):
        raise TypeError(f"{what} must be a str, not {type(value).__name__}")
    return value


def decode(chars):
    """A NUL-terminated character field of a record (ctypes gives it as bytes) as str."""
    return chars.decode("utf-8", "replace")
