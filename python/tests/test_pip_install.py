"""pip installs the package from the repository's python/ folder into a
virtual environment (system site packages for pybind11, no build
isolation, no network), and the installed module reads a file as the
built one does.  Set MOXPY_NO_PIP=1 to leave it out (it compiles the
library, about a minute of processor time)."""

import os
import shutil
import subprocess
import sys

import pytest

from conftest import TOP

pytestmark = pytest.mark.skipif(os.environ.get('MOXPY_NO_PIP') == '1', reason='MOXPY_NO_PIP=1')


def test_pip_install_into_a_venv(tmp_path):
    # A copy of what the package is built from, so that nothing a build in
    # the checkout left behind is reused.
    source = tmp_path / 'src'
    for part in ('native', 'format', 'include'):
        shutil.copytree(os.path.join(TOP, part), str(source / part))
    shutil.copytree(os.path.join(TOP, 'python'), str(source / 'python'),
                    ignore=shutil.ignore_patterns('build', '*.egg-info', '__pycache__', 'tests'))
    venv = tmp_path / 'venv'
    subprocess.run([sys.executable, '-m', 'venv', '--system-site-packages', str(venv)], check=True)
    python = str(venv / 'bin' / 'python')
    env = dict(os.environ, PIP_NO_INDEX='1', PIP_DISABLE_PIP_VERSION_CHECK='1')
    env.pop('PYTHONPATH', None)
    subprocess.run([python, '-m', 'pip', 'install', '-q', '--no-build-isolation', '--no-index',
                    str(source / 'python')], check=True, env=env, cwd=str(tmp_path))
    doc = os.path.join(TOP, 'samples', 'sample.doc')
    script = ('import moxolefio, sys\n'
              'assert moxolefio.__file__.startswith(sys.prefix), moxolefio.__file__\n'
              'ole = moxolefio.OleFileIO(sys.argv[1])\n'
              'print(ole.listdir(), [len(ole.openstream(n).read()) for n in ole.listdir()])\n')
    installed = subprocess.run([python, '-c', script, doc], check=True, env=env, cwd=str(tmp_path),
                               capture_output=True, text=True).stdout
    import moxolefio
    ole = moxolefio.OleFileIO(doc)
    assert installed.strip() == '%s %s' % (ole.listdir(), [len(ole.openstream(n).read()) for n in ole.listdir()])
