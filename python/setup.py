"""Builds the native module and the command-line tool with the project's
CMake build and puts them, with the shared libraries they need beyond the
base system, into the wheel.

FRFCAM_BUILD_DIR names the CMake build folder to use (default: build-wheel
at the top of the source tree); it is configured when needed.
"""
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)

# Libraries every Debian system has; anything else the module links is copied
# into frfcam/_libs, which the module's run path names.
BASE_LIBRARIES = ("linux-vdso", "ld-linux", "libc.so", "libm.so", "libstdc++.so", "libgcc_s.so",
                  "libpthread.so", "libdl.so", "librt.so", "libz.so")


def linked_libraries(module):
    out = subprocess.run(["ldd", module], check=True, capture_output=True, text=True).stdout
    found = []
    for line in out.splitlines():
        parts = line.split()
        if "=>" in parts and parts[-1].startswith("(0x"):
            path = parts[parts.index("=>") + 1]
            if path == "not":
                raise RuntimeError(f"{module}: {line.strip()}")
            if not os.path.basename(path).startswith(BASE_LIBRARIES):
                found.append(path)
    return found


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build_dir = os.path.abspath(os.environ.get("FRFCAM_BUILD_DIR",
                                                   os.path.join(ROOT, "build-wheel")))
        if not os.path.exists(os.path.join(build_dir, "CMakeCache.txt")):
            subprocess.check_call(["cmake", "-S", ROOT, "-B", build_dir,
                                   "-DCMAKE_BUILD_TYPE=Release", "-DFRFCAM_BUILD_TESTS=OFF",
                                   "-DFRFCAM_BUILD_BENCH=OFF",
                                   f"-DPython_EXECUTABLE={sys.executable}"])
        subprocess.check_call(["cmake", "--build", build_dir, "--target", "frfcam_native",
                               "frfcam_cli", "-j", str(os.cpu_count() or 2)])
        built = os.path.join(build_dir, "python", "frfcam")
        module = next(os.path.join(built, f) for f in os.listdir(built)
                      if f.startswith("_native.") and f.endswith(".so"))
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(module, target)
        libs = os.path.join(os.path.dirname(target), "_libs")
        os.makedirs(libs, exist_ok=True)
        # The command-line tool, run by the `frfcam` console script.
        tool = os.path.join(build_dir, "frfcam")
        bin_dir = os.path.join(os.path.dirname(target), "_bin")
        os.makedirs(bin_dir, exist_ok=True)
        shutil.copy(tool, os.path.join(bin_dir, "frfcam"))  # keeps the executable bits
        for lib in set(linked_libraries(module)) | set(linked_libraries(tool)):
            shutil.copyfile(lib, os.path.join(libs, os.path.basename(lib)))


setup(ext_modules=[Extension("frfcam._native", sources=[])], cmdclass={"build_ext": CMakeBuild})
