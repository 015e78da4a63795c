# SPDX-License-Identifier: MIT
"""The qkcam Python package, built by the project's own CMake: only the
engine and the extension module, for the interpreter that runs pip."""

import pathlib
import re
import shutil
import subprocess
import sys

import pybind11
from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).parent.resolve()
VERSION = re.search(r"project\(qkcam VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text()).group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        off = ["QK_TESTS", "QK_SIM", "QK_BENCH", "QK_TOOLS", "QK_EXAMPLES", "QK_INSTALL"]
        subprocess.check_call(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                               "-DQK_PYTHON=ON", f"-DPython3_EXECUTABLE={sys.executable}",
                               f"-Dpybind11_DIR={pybind11.get_cmake_dir()}"] + [f"-D{o}=OFF" for o in off])
        subprocess.check_call(["cmake", "--build", str(build), "--target", "_qkcam", "--parallel", "2"])
        built = next((build / "python" / "qkcam").glob("_qkcam*.so"))
        target = pathlib.Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)


setup(
    name="qkcam",
    version=VERSION,
    description="Remote control of compact digital cameras over USB",
    license="MIT",
    python_requires=">=3.9",
    # Only preview() needs NumPy.
    extras_require={"preview": ["numpy"]},
    packages=["qkcam"],
    package_dir={"": "python"},
    package_data={"qkcam": ["py.typed", "_qkcam.pyi"]},
    ext_modules=[Extension("qkcam._qkcam", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    # Not "build": that is where the project's own CMake builds go.
    options={"build": {"build_base": "build-pip"}},
    zip_safe=False,
)
