# SPDX-License-Identifier: Apache-2.0
"""The installed module: found by Debian's Python under the prefix, libSlot through RUNPATH."""

import glob
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

from conftest import CHILD_TIMEOUT


def test_installed_module_imports_without_library_path(name):
    build = os.environ.get("SLOT_BUILD_DIR")
    cmake = shutil.which("cmake")
    if not build or not cmake:
        pytest.skip("needs the build folder (SLOT_BUILD_DIR) and cmake")
    prefix = tempfile.mkdtemp(prefix="libslot-install-")
    try:
        subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True,
                       capture_output=True, timeout=CHILD_TIMEOUT)
        packages = glob.glob(os.path.join(prefix, "lib", "python3*", "dist-packages"))
        assert len(packages) == 1, os.listdir(prefix)
        env = {k: v for k, v in os.environ.items() if k not in ("LD_LIBRARY_PATH", "PYTHONPATH")}
        env["PYTHONPATH"] = packages[0]
        code = ("import sys, libslot\n"
                "print(libslot.__file__.startswith(sys.argv[2]))\n"
                "slot = libslot.SimpleSlot(sys.argv[1])\n"
                "slot.write(b'in\\0stalled')\n"
                "print(slot.read())\n"
                "libslot.remove_slot(sys.argv[1])\n")
        result = subprocess.run([sys.executable, "-c", code, name, prefix], env=env, cwd=prefix,
                                capture_output=True, timeout=CHILD_TIMEOUT)
        assert result.returncode == 0, result.stderr.decode()
        assert result.stdout.decode() == "True\nb'in\\x00stalled'\n"
    finally:
        shutil.rmtree(prefix, ignore_errors=True)
