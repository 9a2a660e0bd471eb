"""The VM kernel has what the error responder's kernel programs and the VM tests rely on."""
import json
import os
from pathlib import Path

import pytest

from vmnet import sh

pytestmark = pytest.mark.vm

TRACING = Path("/sys/kernel/tracing")

# Sends one UDP datagram with TTL 1 and prints the error the kernel queued for it, as JSON.
SEND_TTL1 = r"""
import json, select, socket, struct, sys
IP_RECVERR = 11
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_IP, socket.IP_TTL, 1)
s.setsockopt(socket.SOL_IP, IP_RECVERR, 1)
s.sendto(b"ravel", (sys.argv[1], 33434))
select.select([s], [], [], 10)
_, anc, _, _ = s.recvmsg(64, 512, socket.MSG_ERRQUEUE | socket.MSG_DONTWAIT)
for level, kind, data in anc:
    if level == socket.SOL_IP and kind == IP_RECVERR:
        errno, origin, typ, code, _, info, _ = struct.unpack_from("=IBBBBII", data)
        offender = socket.inet_ntoa(data[20:24])
        print(json.dumps(dict(origin=origin, type=typ, code=code, offender=offender)))
"""


def add_kprobe_event(line):
    # Appends without seeking: tracefs refuses the seek an "a" mode open makes.
    fd = os.open(TRACING / "kprobe_events", os.O_WRONLY | os.O_APPEND)
    try:
        os.write(fd, line.encode() + b"\n")
    finally:
        os.close(fd)


class Kprobe:
    """A kprobe trace event made through tracefs, removed on close()."""

    def __init__(self, name, symbol):
        self.name = name
        add_kprobe_event(f"p:{name} {symbol}")
        self.dir = TRACING / "events/kprobes" / name

    def enable(self, on=True):
        (self.dir / "enable").write_text("1" if on else "0")

    def hits(self):
        return (TRACING / "trace").read_text().count(f"{self.name}:")

    def close(self):
        self.enable(False)
        add_kprobe_event(f"-:{self.name}")


@pytest.fixture
def kprobe():
    made = []

    def make(name, symbol):
        p = Kprobe(name, symbol)
        made.append(p)
        return p

    (TRACING / "trace").write_text("")
    yield make
    for p in made:
        p.close()


@pytest.mark.parametrize("symbol", ["icmp_push_reply", "__icmp_send", "icmp6_send"])
def test_kprobe_attaches_on_icmp_error_path(kprobe, symbol):
    p = kprobe("ravel_vm_" + symbol.strip("_"), symbol)
    assert (p.dir / "enable").exists()


def test_btf_and_bpffs():
    assert Path("/sys/kernel/btf/vmlinux").stat().st_size > 1 << 20
    assert "/sys/fs/bpf bpf" in Path("/proc/mounts").read_text()


def test_nft_table_in_namespace(net):
    ns = net.ns("nft")
    ns.run("nft", "add", "table", "inet", "ravel_vm")
    ns.run("nft", "add", "chain", "inet", "ravel_vm", "input",
           "{ type filter hook input priority 0; }")
    listed = ns.run("nft", "list", "tables").stdout
    assert "table inet ravel_vm" in listed


def test_ping_across_veth(net):
    a, b = net.ns("a"), net.ns("b")
    net.link(a, "va", "192.0.2.1/24", b, "vb", "192.0.2.2/24")
    r = a.run("ping", "-c", "1", "-W", "5", "192.0.2.2", check=False)
    assert r.returncode == 0, r.stdout + r.stderr
    assert "1 received" in r.stdout


def test_ttl1_through_router_gets_time_exceeded(net, kprobe):
    left, right = net.ns("l"), net.ns("rt")
    net.router(left, "192.0.2", right, "198.51.100")
    probe = kprobe("ravel_vm_push_reply", "icmp_push_reply")
    probe.enable()
    r = left.run("python3", "-c", SEND_TTL1, "198.51.100.2", check=False)
    assert r.returncode == 0, r.stderr
    err = json.loads(r.stdout)
    # Time exceeded (11), TTL exceeded in transit (0), from the router's near address.
    assert err == {"origin": 2, "type": 11, "code": 0, "offender": "192.0.2.1"}
    assert probe.hits() >= 1


def test_runs_in_the_vm():
    assert os.uname().nodename == "ravel-vm"
    assert os.uname().release.endswith("-amd64")
