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


def test_default_vrf_pams_are_raw_sockets(namespaces, daemon_factory):
    ns = namespaces.make("s")
    d = daemon_factory(ns).start()
    dump = d.ctl("dump").stdout
    for fam, proto in (("ipv4", 1), ("ipv6", 58)):
        assert f"pam default {fam}\n    IpPam enabled 1 protocol {proto} netNs default\n" in dump
    ss = ns.run("ss", "-A", "raw", "-a", "-n", "-p").stdout
    raw = [l for l in ss.splitlines() if '"ravel"' in l]
    assert len(raw) == 2, ss


@pytest.mark.parametrize("text, message", [
    ("probe:\n  enabled: yes please\n",
     'ravel.yaml:2: expected a boolean, got "yes please" (key probe.enabled)'),
    ("probe: {}\nextra: 1\n", 'ravel.yaml:2: unknown key "extra" (key extra)'),
])
def test_bad_configuration_stops_start_up_with_one_line(namespaces, workdir, text, message):
    ns = namespaces.make("c")
    cfg = workdir / "ravel.yaml"
    cfg.write_text(text)
    r = ns.run(RAVELCTL.parent / "ravel", "--socket", workdir / "s.sock", "--config", cfg,
               check=False, timeout=10)
    assert r.returncode == 2
    lines = r.stderr.strip().splitlines()
    assert len(lines) == 1 and lines[0].endswith(message), r.stderr
    missing = ns.run(RAVELCTL.parent / "ravel", "--socket", workdir / "s.sock", "--config",
                     workdir / "absent.yaml", check=False, timeout=10)
    assert missing.returncode == 2 and "absent.yaml" in missing.stderr


def test_ring_file_trace_survives_and_prints(namespaces, daemon_factory, workdir):
    ns = namespaces.make("t")
    d = daemon_factory(ns).start()  # LUMENDIR is the work directory
    d.ctl("dump")
    d.proc.kill()  # no orderly shutdown: the file must still be readable
    d.proc.wait()
    r = sh(RAVELCTL, "trace", workdir / "Ravel.lmn")
    lines = r.stdout.splitlines()
    assert any(" Ravel doMountsComplete: doMountsComplete ok" in l for l in lines), r.stdout[:2000]
    assert any(" PamSm handleVrf: vrfName: default" in l for l in lines)
    assert any("handleCommand socket fd" in l for l in lines)


def test_silent_client_does_not_hold_up_others(namespaces, daemon_factory):
    import socket
    import time

    d = daemon_factory(namespaces.make("q")).start()
    silent = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    silent.connect(str(d.socket))
    t0 = time.time()
    assert "pams #" in d.ctl("dump").stdout
    assert time.time() - t0 < 0.5
    silent.close()
