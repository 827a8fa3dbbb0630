"""The installed module imports from where it is installed, and finds the
installed library without help."""

import os
import subprocess
import sys

import pytest


def test_installed_module_imports(tmp_path):
    build, cmake = os.environ.get("WEFT_BUILD_DIR"), os.environ.get("WEFT_CMAKE")
    if not build or not cmake:
        pytest.skip("run through ctest, which names the build tree")
    for component in ("runtime", "python"):
        subprocess.run([cmake, "--install", build, "--prefix", tmp_path, "--component", component],
                       check=True, capture_output=True)
    packages = tmp_path / "lib" / "python3" / "dist-packages"
    env = {"PATH": os.environ["PATH"], "PYTHONPATH": str(packages)}
    done = subprocess.run([sys.executable, "-c", "import weft; print(weft.__file__)"], env=env,
                          capture_output=True, text=True, cwd=tmp_path)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(str(packages))
