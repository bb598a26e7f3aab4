"""Shared by the Python package's tests, which ctest runs (tests/python/CMakeLists.txt)
with the build's package on PYTHONPATH and the virtual focusers preloaded:
LD_PRELOAD names libzor_hidsim.so and ZOR_SIM the focusers of each test file.
"""

import atexit
import os
import shutil
import tempfile

import pytest

# The library keeps settings and logs under HOME: these tests get one of their
# own, set before the library first reads it.
_home = tempfile.mkdtemp(prefix="zorfocuser-test-home.")
os.environ["HOME"] = _home
atexit.register(shutil.rmtree, _home, ignore_errors=True)

if "zor_hidsim" not in os.environ.get("LD_PRELOAD", ""):
    pytest.exit("run these tests through ctest, which preloads the virtual focusers (libzor_hidsim.so)", 2)


def required_environment(name):
    value = os.environ.get(name)
    if not value:
        pytest.exit(f"{name} is not set; run these tests through ctest", 2)
    return value
