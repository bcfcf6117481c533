# SPDX-License-Identifier: Apache-2.0
"""The installed module: found by Debian's Python under the prefix, libSlot through RUNPATH."""

import glob
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

from conftest import CHILD_TIMEOUT, check_child


# /usr and /usr/local are installed below a DESTDIR: the package folder (without the DESTDIR)
# must be one that this interpreter searches by itself. Any other prefix gets
# lib/python3.X/dist-packages, for PYTHONPATH.
@pytest.mark.parametrize("system_prefix", ["/usr", "/usr/local", None])
def test_installed_module_imports_without_library_path(name, system_prefix):
    build = os.environ.get("SLOT_BUILD_DIR")
    cmake = shutil.which("cmake")
    if not build or not cmake:
        pytest.skip("needs the build folder (SLOT_BUILD_DIR) and cmake")
    scratch = tempfile.mkdtemp(prefix="libslot-install-")
    try:
        env = {k: v for k, v in os.environ.items()
               if k not in ("LD_LIBRARY_PATH", "PYTHONPATH", "DESTDIR")}
        if system_prefix:
            prefix = system_prefix
            env["DESTDIR"] = scratch
        else:
            prefix = scratch
        subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True, env=env,
                       capture_output=True, timeout=CHILD_TIMEOUT)
        env.pop("DESTDIR", None)
        modules = glob.glob(os.path.join(scratch, "**", "libslot", "_native*.so"), recursive=True)
        assert len(modules) == 1, modules
        package_dir = os.path.dirname(os.path.dirname(modules[0]))
        if system_prefix:
            searched = subprocess.run(
                [sys.executable, "-c", "import sys; print('\\n'.join(sys.path))"], env=env,
                capture_output=True, check=True, timeout=CHILD_TIMEOUT).stdout.decode().split("\n")
            assert package_dir[len(scratch):] in searched
        else:
            assert glob.glob(os.path.join(scratch, "lib", "python3.*", "dist-packages")) == \
                [package_dir]
        env["PYTHONPATH"] = package_dir
        code = ("import sys, libslot\n"
                "print(libslot.__file__.startswith(sys.argv[2]))\n"
                "slot = libslot.SimpleSlot(sys.argv[1])\n"
                "slot.write(b'in\\0stalled')\n"
                "print(slot.read())\n"
                "libslot.remove_slot(sys.argv[1])\n")
        result = subprocess.run([sys.executable, "-c", code, name, scratch], env=env, cwd=scratch,
                                capture_output=True, timeout=CHILD_TIMEOUT)
        check_child(result, "True\nb'in\\x00stalled'\n")
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
