"""The extension's build for pip; metadata is in pyproject.toml. Compiles against the installed
library, found through pkg-config (set PKG_CONFIG_PATH for a prefix of your own)."""

import shlex
import subprocess

from setuptools import Extension, setup


def pkg_config(*args):
    try:
        return shlex.split(subprocess.check_output(("pkg-config",) + args + ("vidra-mjpeg",),
                                                   text=True))
    except (OSError, subprocess.CalledProcessError):
        raise SystemExit("vidra_mjpeg: pkg-config can't find vidra-mjpeg; install the library "
                         "first (cmake --install) or point PKG_CONFIG_PATH at its lib/pkgconfig")


libdir = pkg_config("--variable=libdir")[0]
setup(ext_modules=[Extension(
    "vidra_mjpeg._core", ["src/module.cc"], language="c++",
    extra_compile_args=["-std=c++17", "-fvisibility=hidden"] + pkg_config("--cflags"),
    extra_link_args=pkg_config("--libs") + ["-lvidralog", "-Wl,-rpath," + libdir])])
