"""The daemon's life cycle and control socket, for real."""
import os
import signal
import stat
import socket
import subprocess
import time

import pytest

from conftest import RAVELCTL, sh, wait_for

pytestmark = pytest.mark.privileged


def test_start_dump_second_instance_and_sigterm(namespaces, daemon_factory, workdir):
    ns = namespaces.make("d")
    d = daemon_factory(ns).start()
    assert "ravel: ready" in d.output()
    # Only root talks to the daemon: `clear counters` and the state are behind the socket.
    assert stat.S_IMODE(os.stat(d.socket).st_mode) == 0o600

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


def test_bad_configuration_stops_start_up_with_one_line(namespaces, workdir):
    """The daemon's side of a bad file (the messages themselves are the parser's tests)."""
    ns = namespaces.make("c")
    cfg = workdir / "ravel.yaml"
    cfg.write_text("probe:\n  enabled: yes please\n")
    message = 'ravel.yaml:2: expected a boolean, got "yes please" (key probe.enabled)'
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


def connect(d):
    c = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    c.connect(str(d.socket))
    return c


def read_all(c):
    out = b""
    while chunk := c.recv(1 << 16):
        out += chunk
    return out


def test_clients_that_stall_hold_up_no_one_and_lose_nothing(namespaces, daemon_factory):
    ns = namespaces.make("q")
    # A few thousand interfaces make "show state --json" far larger than a socket buffer.
    batch = "".join(f"link add dm{i} type veth peer dp{i}\n" for i in range(2000))
    ns.run("ip", "-batch", "-", input=batch)
    d = daemon_factory(ns).start()
    assert wait_for(lambda: "dp1999" in d.ctl("show", "state", "--json").stdout, 10)
    expected = d.ctl("show", "state", "--json").stdout
    with open("/proc/sys/net/core/wmem_default") as f:
        assert len(expected) > 2 * int(f.read())

    silent = connect(d)  # says nothing
    stalled = []
    for _ in range(5):  # ask for the large reply and do not read it yet
        c = connect(d)
        c.sendall(b"show state --json\n")
        stalled.append(c)
    # Served meanwhile: the daemon waits for none of them.
    assert "pid" in d.ctl("show", "status").stdout
    # Longer than a blocking send would have waited, shorter than the no-progress limit.
    time.sleep(3)
    assert "pid" in d.ctl("show", "status").stdout
    for c in stalled:
        assert read_all(c).decode() == expected
        c.close()
    silent.close()


def test_oversized_request_is_refused_unread(namespaces, daemon_factory):
    d = daemon_factory(namespaces.make("o")).start()
    c = connect(d)
    try:
        c.sendall(b"x" * (1 << 20))
    except (BrokenPipeError, ConnectionResetError):
        pass  # the daemon stopped reading at the cap and closed
    reply = read_all(c).decode()
    c.close()
    assert reply == "error: request longer than 65536 bytes\n"
    assert "pid" in d.ctl("show", "status").stdout


def test_open_files_soft_limit_is_raised_to_the_hard_limit(namespaces, workdir):
    ns = namespaces.make("f")
    (workdir / "netns").mkdir(exist_ok=True)
    proc = ns.popen("prlimit", "--nofile=256:4096", RAVELCTL.parent / "ravel", "--socket",
                    workdir / "f.sock", "--netns-dir", workdir / "netns",
                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    try:
        first = proc.stdout.readline()
        assert first == "ravel: open files limit raised from 256 to 4096\n"
        with open(f"/proc/{proc.pid}/limits") as f:
            line = next(l for l in f if l.startswith("Max open files"))
        assert line.split()[3:5] == ["4096", "4096"]
    finally:
        proc.terminate()
        proc.wait(10)
