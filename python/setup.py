"""Builds the moxolefio package with pybind11's setuptools helpers.

The extension is compiled from this folder's sources together with the
library's native interface (native/ and format/ one level up), so the
installed module is one self-contained file with no shared library to
find.  Run from a checkout: ``pip install --no-build-isolation ./python``.
"""

import glob
import os

from setuptools import setup
from pybind11.setup_helpers import ParallelCompile, Pybind11Extension, build_ext

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)


def library_sources():
    native = sorted(glob.glob(os.path.join(TOP, 'native', '**', '*.cpp'), recursive=True))
    records = sorted(glob.glob(os.path.join(TOP, 'format', '*.cpp')))
    if not native or not records:
        raise SystemExit('moxolefio: the library sources (../native, ../format) are not beside '
                         'this folder; install from a checkout of the repository')
    return native, records


def defines_editing(sources):
    # Editing comes with the native sources that define it; until then the
    # module is built read-only (the same test as the CMake build's).
    for path in sources:
        with open(path, encoding='utf-8', errors='replace') as f:
            if 'CompoundFile::commit(' in f.read():
                return True
    return False


def relative(paths):
    # setuptools takes sources relative to this folder only.
    return [os.path.relpath(p, HERE) for p in paths]


native, records = library_sources()
macros = [('MOXPY_EDITING', '1' if defines_editing(native) else '0')]

ParallelCompile('MOXPY_BUILD_JOBS', default=2).install()

extension = Pybind11Extension(
    'moxolefio._moxolefio',
    relative(sorted(glob.glob(os.path.join(HERE, 'src', '*.cpp'))) + native + records),
    include_dirs=[os.path.join(TOP, 'include'), TOP],
    define_macros=macros,
    cxx_std=17,
    # No debug information: the installed module stays small.
    extra_compile_args=['-O2', '-g0'],
)

setup(
    packages=['moxolefio'],
    package_dir={'moxolefio': 'moxolefio'},
    ext_modules=[extension],
    cmdclass={'build_ext': build_ext},
    zip_safe=False,
)
