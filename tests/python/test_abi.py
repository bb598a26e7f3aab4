"""The package's records and result codes against ZOR_focuser.h as a C compiler
lays it out: every record's size, every field's offset and size, and every
result code's value, name and meaning; and ZOR_LIBRARY choosing the library."""

import ctypes
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from conftest import required_environment
import zorfocuser
from zorfocuser import _abi

INCLUDE_DIR = Path(required_environment("ZOR_INCLUDE_DIR"))
C_COMPILER = required_environment("ZOR_C_COMPILER")


def header_records():
    """{typedef name: [field names in order]} of every struct of the header."""
    text = re.sub(r"/\*.*?\*/", "", (INCLUDE_DIR / "ZOR_focuser.h").read_text(), flags=re.S)
    records = {}
    for body, name in re.findall(r"typedef struct _\w+ \{(.*?)\} (\w+);", text, flags=re.S):
        statements = [s.strip() for s in body.split(";") if s.strip()]
        records[name] = [re.search(r"(\w+)\s*(?:\[[^\]]*\]\s*)*$", s).group(1) for s in statements]
    return records


def header_code_texts():
    text = (INCLUDE_DIR / "ZOR_result_codes.h").read_text()
    return dict(re.findall(r'X\((ZOR_\w+), "([^"]*)"\)', text))


def compiled_layout(tmp_path):
    """Runs a C program that prints, for the records the package declares, what
    the compiler makes of them, and the value of every result code."""
    lines = []
    for record in _abi.RECORDS:
        lines.append(f'printf("{record.__name__} %zu\\n", sizeof({record.__name__}));')
        for field, _ in record._fields_:
            lines.append(f'printf("{record.__name__}.{field} %zu %zu\\n", offsetof({record.__name__}, {field}), '
                         f"sizeof((({record.__name__} *)0)->{field}));")
    source = tmp_path / "probe.c"
    source.write_text("#include <stddef.h>\n#include <stdio.h>\n#include \"ZOR_result_codes.h\"\n"
                      '#define CODE(name, meaning) printf(#name " %d\\n", (int)name);\n'
                      "int main(void)\n{\n" + "\n".join(lines) + "\n"
                      'printf("ZOR_ERROR_CODE %zu\\n", sizeof(ZOR_ERROR_CODE));\n'
                      "ZOR_RESULT_CODES(CODE)\nreturn 0;\n}\n")
    program = tmp_path / "probe"
    subprocess.run([C_COMPILER, "-std=c99", f"-I{INCLUDE_DIR}", str(source), "-o", str(program)], check=True)
    output = subprocess.run([str(program)], check=True, capture_output=True, text=True).stdout
    return {key: tuple(int(v) for v in values) for key, *values in (line.split() for line in output.splitlines())}


def test_every_record_has_the_header_fields_sizes_and_offsets(tmp_path):
    declared = {record.__name__: [field for field, _ in record._fields_] for record in _abi.RECORDS}
    assert declared == header_records()

    compiled = compiled_layout(tmp_path)
    for record in _abi.RECORDS:
        assert compiled[record.__name__] == (ctypes.sizeof(record),), record.__name__
        for field, _ in record._fields_:
            descriptor = getattr(record, field)
            assert compiled[f"{record.__name__}.{field}"] == (descriptor.offset, descriptor.size), \
                f"{record.__name__}.{field}"
    assert compiled["ZOR_ERROR_CODE"] == (ctypes.sizeof(_abi.ZOR_ERROR_CODE),)


def test_result_codes_have_the_header_values_names_and_meanings(tmp_path):
    compiled = compiled_layout(tmp_path)
    texts = header_code_texts()
    assert {name: (value,) for value, name, _ in _abi.RESULT_CODES} == \
        {name: compiled[name] for name in texts}
    assert {name: meaning for _, name, meaning in _abi.RESULT_CODES} == texts


def test_zor_library_names_the_library_loaded(tmp_path):
    def load_with(library):
        return subprocess.run([sys.executable, "-c", "import zorfocuser; print(zorfocuser.library_path)"],
                              env=dict(os.environ, ZOR_LIBRARY=str(library)), capture_output=True, text=True)

    copy = tmp_path / "libZORfocuser-copy.so"
    shutil.copyfile(zorfocuser.library_path, copy)
    assert load_with(copy).stdout.strip() == str(copy)
    missing = load_with(tmp_path / "absent.so")
    assert missing.returncode != 0
    assert f"zorfocuser cannot load the focuser library {tmp_path / 'absent.so'}" in missing.stderr
