import os
import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PACKAGE = os.environ.get("KELQUOTE_PYTHONPATH", str(ROOT / "build" / "release" / "python"))
sys.path.insert(0, PACKAGE)

import kelquote as kq  # noqa: E402


@pytest.fixture(scope="session")
def client(tmp_path_factory):
    c = kq.Client(home=tmp_path_factory.mktemp("home"))
    c.login()
    kq.sim.set_clock(0, 100000)  # the markets trade
    kq.sim.set_stream_interval(20)
    return c


@pytest.fixture
def script(tmp_path):
    """Runs Python code in a fresh interpreter with the package; returns the finished process."""
    def run(code, env=None, stdin_signal=None):
        environment = dict(os.environ, PYTHONPATH=PACKAGE, KELQUOTE_HOME=str(tmp_path), **(env or {}))
        proc = subprocess.Popen([sys.executable, "-c", code], env=environment, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)
        if stdin_signal is not None:
            assert proc.stdout.readline().strip() == "ready"
            proc.send_signal(stdin_signal)
        out, err = proc.communicate(timeout=120)  # a hang fails the test instead of stopping the run
        return proc.returncode, out, err
    return run
