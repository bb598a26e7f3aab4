"""The examples of examples/python run to completion against the virtual
focuser that ctest describes in ZOR_SIM (a fast ZOR Pro at 12.5 °C), each in
a process of its own."""

import os
import re
import shlex
import subprocess
import sys
from pathlib import Path

EXAMPLES = Path(__file__).resolve().parents[2] / "examples" / "python"


def run(example, *arguments):
    done = subprocess.run([sys.executable, str(EXAMPLES / example), *arguments],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return done.stdout.splitlines()


def test_focus_sweep_visits_each_position_and_returns():
    lines = run("focus_sweep.py", "--from", "28000", "--to", "32000", "--points", "3")
    assert lines[0].split() == ["TARGET", "POSITION", "TEMPERATURE"]
    assert [line.split() for line in lines[1:4]] == [
        ["28000", "28000", "12.5", "°C"], ["30000", "30000", "12.5", "°C"], ["32000", "32000", "12.5", "°C"]]
    assert lines[4].startswith("Back at ")


def test_temperature_logger_prints_each_reading():
    lines = run("temperature_logger.py", "--interval", "0.05", "--count", "3")
    assert lines[0] == "time,temperature_c,position"
    assert len(lines) == 4
    assert all(line.split(",")[1:] == ["12.5", "30000"] for line in lines[1:])


def test_readme_python_session_works_as_written(tmp_path):
    """The session of README's "Using it from Python", run as a doctest with
    the environment its first line sets, build-demo/ being this build."""
    root = Path(__file__).resolve().parents[2]
    section = (root / "README.md").read_text().split("## Using it from Python", 1)[1]
    session = re.search(r"```console\n(.*?)```", section, re.S).group(1)
    command, doctest_lines = session.split("\n", 1)
    *assignments, program = shlex.split(command.removeprefix("$ "))
    assert program == "python3"
    build = Path(os.environ["PYTHONPATH"].split(os.pathsep)[0]).parent
    environment = dict(os.environ)
    for assignment in assignments:
        name, value = assignment.split("=", 1)
        environment[name] = str(root / value.replace("build-demo", str(build))) if "/" in value else value
    # A sanitizer build's runtime stays first in the preload list.
    runtime = [p for p in os.environ["LD_PRELOAD"].split(":") if "zor_hidsim" not in p]
    environment["LD_PRELOAD"] = ":".join(runtime + [environment["LD_PRELOAD"]])
    (tmp_path / "session.txt").write_text(doctest_lines)
    done = subprocess.run([sys.executable, "-m", "doctest", str(tmp_path / "session.txt")], cwd=root,
                          env=environment, capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stdout + done.stderr
