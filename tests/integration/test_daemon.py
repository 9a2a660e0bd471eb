"""The daemon's life cycle and control socket, for real."""
import signal

import pytest

from conftest import RAVELCTL, sh

pytestmark = pytest.mark.privileged


def test_start_dump_second_instance_and_sigterm(namespaces, daemon_factory, workdir):
    ns = namespaces.make("d")
    d = daemon_factory(ns).start()
    assert "ravel: ready" in d.output()

    dump = d.ctl("dump").stdout
    # Answered by the agent library's own callback.
    assert "Toggle State:" in dump
    assert "pams #" in dump

    r = ns.run(RAVELCTL.parent / "ravel", "--socket", d.socket, "--netns-dir", d.netns_dir,
               check=False, timeout=10)
    assert r.returncode != 0
    assert "already running" in r.stderr

    assert d.stop(signal.SIGTERM) == 0
    assert not d.socket.exists()


def test_ravelctl_without_daemon_fails_clearly(workdir):
    r = sh(RAVELCTL, "--socket", workdir / "none.sock", "dump", check=False)
    assert r.returncode != 0
    lines = r.stderr.strip().splitlines()
    assert len(lines) == 1
    assert "cannot reach ravel" in lines[0]


def test_unknown_command_word(namespaces, daemon_factory):
    d = daemon_factory(namespaces.make("u")).start()
    r = d.ctl("raw", "dumpState", "Bogus", check=False)
    assert r.stdout.startswith("Unknown command: Bogus")
    assert r.returncode != 0
