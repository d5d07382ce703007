"""Builds the compiled part of the Python package with the project's CMake build.

Only the module target is built (no tests, tools or benchmarks), with the interpreter that
runs this script, into build-python/ (the CMake build folder of the README stays untouched).
"""

import glob
import os
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

SOURCE = os.path.dirname(os.path.abspath(__file__))


def project_version():
    with open(os.path.join(SOURCE, "CMakeLists.txt")) as f:
        match = re.search(r"project\(msmface VERSION ([0-9.]+)", f.read())
    if not match:
        raise RuntimeError("CMakeLists.txt: no project(msmface VERSION x.y.z) found")
    return match.group(1)


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        if shutil.which("cmake") is None:
            raise RuntimeError("cmake: not found; install it (Debian: apt-get install cmake)")
        build_dir = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        configure = [
            "cmake", "-S", SOURCE, "-B", build_dir,
            "-DCMAKE_BUILD_TYPE=Release",
            "-DMSMFACE_BUILD_PYTHON=ON",
            "-DMSMFACE_BUILD_TESTS=OFF",
            "-DMSMFACE_BUILD_BENCH=OFF",
            "-DMSMFACE_BUILD_FUZZ=OFF",
            "-DMSMFACE_BUILD_TOOLS=OFF",
            "-DPython_EXECUTABLE=" + sys.executable,
        ]
        if shutil.which("ccache"):
            configure.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        subprocess.check_call(configure)
        jobs = str(os.cpu_count() or 2)
        subprocess.check_call(["cmake", "--build", build_dir, "--target", "msmface_python",
                               "-j", jobs])
        built = glob.glob(os.path.join(build_dir, "python", "msmface", "_msmface*.so"))
        if len(built) != 1:
            raise RuntimeError("the CMake build made no Python module (is pybind11 installed? "
                               "Debian: pybind11-dev python3-dev)")
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built[0], target)


setup(
    version=project_version(),
    packages=["msmface"],
    package_dir={"msmface": "python/msmface"},
    package_data={"msmface": ["*.pyi", "py.typed"]},
    ext_modules=[CMakeExtension("msmface._msmface")],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": "build-python"}},
    zip_safe=False,
)
