"""Builds the extension qelr._core with the project's CMake build (the same
one as `cmake --workflow --preset test`), with libqelr and libqelcore
installed inside the package. Used by `pip install --no-build-isolation .`;
needs CMake, Ninja, a C++20 compiler with OpenMP and pybind11."""
import os
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        package_parent = os.path.dirname(os.path.dirname(os.path.abspath(self.get_ext_fullpath(ext.name))))
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        subprocess.check_call([
            "cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
            "-DQELR_BUILD_TESTS=OFF", "-DQELR_BUILD_BENCH=OFF", "-DQELR_BUILD_EXAMPLES=OFF",
            "-DQELR_PYTHON_BUNDLE=ON", "-DQELR_PYTHON_INSTALL_DIR=.",
            "-DPython3_EXECUTABLE=" + sys.executable])
        subprocess.check_call(["cmake", "--build", build, "--target", "_core", "-j",
                               str(os.cpu_count() or 2)])
        subprocess.check_call(["cmake", "--install", build, "--component", "python", "--prefix",
                               package_parent])


setup(ext_modules=[Extension("qelr._core", sources=[])], cmdclass={"build_ext": CMakeBuild})
