"""Fixtures for the end-to-end tests: network namespaces and a running ravel daemon.

Every namespace a test makes carries the test run's pid in its name and is deleted afterwards;
traffic only flows between those namespaces.
"""
import json
import os
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("RAVEL_BUILD", ROOT / "build"))
RAVEL = BUILD / "bin" / "ravel"
RAVELCTL = BUILD / "bin" / "ravelctl"


def pytest_configure(config):
    config.addinivalue_line("markers", "privileged: needs root (namespaces, raw sockets)")


def pytest_collection_modifyitems(config, items):
    if os.geteuid() == 0:
        return
    skip = pytest.mark.skip(reason="needs root")
    for item in items:
        if "privileged" in item.keywords:
            item.add_marker(skip)


def sh(*args, check=True, **kw):
    return subprocess.run([str(a) for a in args], check=check, capture_output=True, text=True, **kw)


class Netns:
    """A network namespace made with `ip netns add`, deleted on close()."""

    def __init__(self, name):
        self.name = name
        sh("ip", "netns", "add", name)
        self.run("ip", "link", "set", "lo", "up")

    def run(self, *args, check=True, **kw):
        return sh("ip", "netns", "exec", self.name, *args, check=check, **kw)

    def popen(self, *args, **kw):
        return subprocess.Popen(["ip", "netns", "exec", self.name] + [str(a) for a in args], **kw)

    @property
    def path(self):
        return Path("/run/netns") / self.name

    def close(self):
        sh("ip", "netns", "del", self.name, check=False)


class Namespaces:
    def __init__(self):
        self.tag = f"rv{os.getpid() % 100000}"
        self.made = []

    def make(self, suffix):
        ns = Netns(f"{self.tag}{suffix}")
        self.made.append(ns)
        return ns

    def close(self):
        for ns in reversed(self.made):
            ns.close()


@pytest.fixture
def namespaces():
    n = Namespaces()
    yield n
    n.close()


class Daemon:
    """ravel running inside a namespace, with its own socket and namespace directory."""

    def __init__(self, ns, workdir, config=None, netns_dir=None, env=None):
        self.ns = ns
        self.workdir = Path(workdir)
        self.socket = self.workdir / "ravel.sock"
        self.netns_dir = Path(netns_dir) if netns_dir else self.workdir / "netns"
        self.netns_dir.mkdir(exist_ok=True)
        self.config = config
        self.log = self.workdir / "ravel.log"
        self.env = dict(os.environ, LUMENDIR=str(self.workdir), **(env or {}))
        self.proc = None

    def start(self, timeout=10):
        args = [RAVEL, "--socket", self.socket, "--netns-dir", self.netns_dir]
        if self.config:
            args += ["--config", self.config]
        self.logf = open(self.log, "w")
        cmd = [str(a) for a in args]
        if self.ns is not None:
            self.proc = self.ns.popen(*cmd, stdout=self.logf, stderr=subprocess.STDOUT, env=self.env)
        else:
            self.proc = subprocess.Popen(cmd, stdout=self.logf, stderr=subprocess.STDOUT, env=self.env)
        deadline = time.time() + timeout
        while time.time() < deadline:
            if "ready" in self.log.read_text():
                return self
            if self.proc.poll() is not None:
                raise RuntimeError(f"ravel exited {self.proc.returncode}: {self.log.read_text()}")
            time.sleep(0.05)
        raise RuntimeError(f"ravel not ready: {self.log.read_text()}")

    def ctl(self, *args, check=True):
        r = sh(RAVELCTL, "--socket", self.socket, *args, check=False)
        if check and r.returncode != 0:
            raise AssertionError(f"ravelctl {args} -> {r.returncode}: {r.stdout}{r.stderr}")
        return r

    def probe_status(self):
        return json.loads(self.ctl("show", "probe", "--json").stdout)

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if self.proc is None or self.proc.poll() is not None:
            return self.proc.returncode if self.proc else None
        self.proc.send_signal(sig)
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise

    def output(self):
        return self.log.read_text()


@pytest.fixture
def workdir():
    with tempfile.TemporaryDirectory(prefix="ravel-test-") as d:
        yield Path(d)


@pytest.fixture
def daemon_factory(workdir):
    started = []

    def make(ns, config=None, **kw):
        d = Daemon(ns, workdir, config=config, **kw)
        started.append(d)
        return d

    yield make
    for d in started:
        try:
            d.stop()
        except Exception:
            pass


def wait_for(pred, timeout=5.0, interval=0.05):
    """Polls pred until it is true or the time is up; returns its last value."""
    deadline = time.time() + timeout
    while True:
        v = pred()
        if v or time.time() >= deadline:
            return v
        time.sleep(interval)
