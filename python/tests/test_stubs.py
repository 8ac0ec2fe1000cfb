"""The type stubs shipped with the extension describe it as it is built."""

import ast
import pathlib
import subprocess
import sys

import tarnel64
from tarnel64 import _core


def test_stubs_are_current_and_complete(tmp_path):
    shipped = pathlib.Path(_core.__file__).with_name("_core.pyi")
    assert shipped.is_file(), "the wheel carries no _core.pyi"
    fresh = tmp_path / "_core.pyi"
    subprocess.run([sys.executable, "-m", "nanobind.stubgen", "-m", "tarnel64._core", "-o", str(fresh)], check=True,
                   capture_output=True)
    assert fresh.read_text() == shipped.read_text()
    tree = ast.parse(shipped.read_text())
    declared = {node.name for node in ast.walk(tree) if isinstance(node, (ast.FunctionDef, ast.ClassDef))}
    public = {name for name in dir(_core) if not name.startswith("_")}
    assert public <= declared, public - declared
    assert "write" in declared and "analyse_file" in declared
    assert set(tarnel64.__all__) <= set(dir(tarnel64))
