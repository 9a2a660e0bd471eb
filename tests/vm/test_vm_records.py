"""The kernel probe programs through the real loader: records for real ICMP errors.

ravel-vm-records (built from tests/vm/records) loads both programs, puts namespaces into their
filter maps and prints every record it drains as JSON. The errors come from a forwarding
namespace between two hosts; the kernel queues a record before it sends its own error, so the
record is in the ring once the sender has seen the error.
"""
import json
import os
import subprocess
from pathlib import Path

import pytest

from vmnet import sh

pytestmark = pytest.mark.vm

ROOT = Path(__file__).resolve().parents[2]
DUMP = Path(os.environ.get("RAVEL_BUILD", ROOT / "build")) / "bin" / "ravel-vm-records"


class Records:
    """The record dumper as a line-oriented child process."""

    def __init__(self):
        self.proc = subprocess.Popen([str(DUMP)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True)

    def cmd(self, line, until):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        got = []
        while True:
            out = self.proc.stdout.readline()
            assert out, f"dumper ended: {self.proc.stderr.read()}"
            msg = json.loads(out)
            if msg["event"] == until:
                return got, msg
            got.append(msg)

    def drain(self):
        records, _ = self.cmd("drain", "drained")
        return records

    def close(self):
        if self.proc.poll() is None:
            self.proc.stdin.write("quit\n")
            self.proc.stdin.close()
            self.proc.wait(timeout=20)
        return self.proc.stderr.read()


@pytest.fixture
def topo(net):
    """h1 -- r -- h2, IPv4 192.0.2/24 and 198.51.100/24, IPv6 2001:db8:1::/64 and
    2001:db8:2::/64; errors unlimited in r, jumbo frames so a 2000-byte datagram is not
    fragmented."""
    h1, h2 = net.ns("h1"), net.ns("h2")
    r = net.router(h1, "192.0.2", h2, "198.51.100")
    r.sysctl("net.ipv6.conf.all.forwarding", 1)
    r.sysctl("net.ipv4.icmp_ratelimit", 0)
    r.sysctl("net.ipv6.icmp.ratelimit", 0)
    for host, rdev, n in ((h1, "rl", 1), (h2, "rr", 2)):
        r.run("ip", "addr", "add", f"2001:db8:{n}::1/64", "dev", rdev, "nodad")
        host.run("ip", "addr", "add", f"2001:db8:{n}::2/64", "dev", "eth0", "nodad")
        host.run("ip", "-6", "route", "add", "default", "via", f"2001:db8:{n}::1")
        for ns, dev in ((r, rdev), (host, "eth0")):
            ns.run("ip", "link", "set", dev, "mtu", "9000")
    d = Records()
    _, loaded = d.cmd("load", "loaded")
    assert loaded["ipv4"] and loaded["ipv6"], d.close()
    yield h1, h2, r, d
    d.close()


def ifindex(ns, dev):
    return int(ns.run("cat", f"/sys/class/net/{dev}/ifindex").stdout)


def inode(ns):
    return os.stat(f"/run/netns/{ns.name}").st_ino


def udp(ns, dst, length, ttl=1, six=False):
    """One UDP probe of `length` bytes (IP header included) with the given TTL/hop limit."""
    ns.run("traceroute", "-6" if six else "-4", "-n", "-q", "1", "-f", str(ttl), "-m", str(ttl),
           "-w", "2", dst, str(length))


def test_errors_in_an_enabled_namespace_are_recorded(topo):
    h1, _, r, d = topo
    d.cmd(f"add /run/netns/{r.name}", "add")
    rl = ifindex(r, "rl")

    udp(h1, "198.51.100.2", 548)     # time exceeded, the whole datagram quoted
    udp(h1, "198.51.100.2", 2000)    # time exceeded, quote capped by the kernel at 576 - 28
    udp(h1, "192.0.2.1", 100, ttl=2)  # to the router itself: port unreachable
    udp(h1, "2001:db8:2::2", 1500, six=True)  # hop limit exceeded
    recs = d.drain()
    got = [(x["af"], x["type"], x["code"], x["datalen"], x["ifindex"], x["nsindex"], x["dst"],
            x["src"]) for x in recs]
    ns = inode(r) & 0xffffffff
    assert got == [
        ("ipv4", 11, 0, 548, rl, ns, "192.0.2.2", "192.0.2.1"),
        ("ipv4", 11, 0, 548, rl, ns, "192.0.2.2", "192.0.2.1"),
        ("ipv4", 3, 3, 100, rl, ns, "192.0.2.2", "192.0.2.1"),
        ("ipv6", 3, 0, 1024, rl, ns, "2001:db8:1::2", "2001:db8:1::1"),
    ], recs
    # The quote starts at the offending IP header: version, then the addresses it carried.
    assert recs[0]["head"].startswith("45") and recs[0]["head"][24:40] == "c0000202c6336402"
    assert recs[3]["head"].startswith("6")
    _, stats = d.cmd("stats", "stats")
    assert stats["ipv4"]["queued"] == 3 and stats["ipv6"]["queued"] == 1, stats
    assert stats["ipv4"]["dropped"] == 0 and stats["ipv4"]["received"] == 3, stats


def test_what_is_not_reported(topo):
    h1, h2, r, d = topo
    # Only h2 is enabled: the router's errors are in a namespace outside the map.
    d.cmd(f"add /run/netns/{h2.name}", "add")
    udp(h1, "198.51.100.2", 100)
    udp(h1, "2001:db8:2::2", 200, six=True)
    # The router enabled: an echo reply passes the same kernel path and is no error; errors
    # about packets the router made itself or looped back are the kernel's alone.
    d.cmd(f"add /run/netns/{r.name}", "add")
    h1.run("ping", "-c", "1", "-W", "2", "192.0.2.1")
    udp(r, "127.0.0.1", 100, ttl=64)
    udp(r, "::1", 100, ttl=64, six=True)
    assert d.drain() == []
    _, stats = d.cmd("stats", "stats")
    assert stats["ipv4"]["queued"] == 0 and stats["ipv6"]["queued"] == 0, stats
    # Removed again: nothing.
    d.cmd(f"remove /run/netns/{r.name}", "remove")
    udp(h1, "198.51.100.2", 100)
    assert d.drain() == []


def test_nothing_is_recorded_after_unload(topo):
    h1, _, r, d = topo
    d.cmd(f"add /run/netns/{r.name}", "add")
    udp(h1, "198.51.100.2", 100)
    assert len(d.drain()) == 1
    d.cmd("unload", "unloaded")
    udp(h1, "198.51.100.2", 100)
    udp(h1, "2001:db8:2::2", 200, six=True)
    _, loaded = d.cmd("load", "loaded")
    assert loaded["ipv4"] and loaded["ipv6"]
    d.cmd(f"add /run/netns/{r.name}", "add")
    assert d.drain() == []
    assert "Failed" not in d.close()


def map_sizes(name):
    """max_entries of the maps whose name starts with `name` (the kernel keeps 15 bytes)."""
    maps = json.loads(sh("bpftool", "-j", "map", "show").stdout)
    return sorted(m["max_entries"] for m in maps if m.get("name", "").startswith(name))


@pytest.mark.parametrize("ring, vrfmap, expected_ring, expected_map", [
    (0, 0, 262144, 100), (1075, 0, 262144, 100), (4095, 1, 262144, 1),
    (1048576, 1000, 1048576, 1000)])
def test_configured_sizes(ring, vrfmap, expected_ring, expected_map):
    d = Records()
    try:
        _, loaded = d.cmd(f"load {ring} {vrfmap}", "loaded")
        assert loaded["ipv4"] and loaded["ipv6"]
        assert map_sizes("ringbuf") == [expected_ring] * 2
        assert map_sizes("namespace_filte") == [expected_map] * 2
    finally:
        d.close()


def test_a_full_filter_map_is_reported_and_the_rest_goes_on(net):
    a, b = net.ns("a"), net.ns("b")
    d = Records()
    d.cmd("load 0 1", "loaded")
    d.cmd(f"add /run/netns/{a.name}", "add")
    d.cmd(f"add /run/netns/{b.name}", "add")     # no room: reported, not fatal
    d.cmd(f"remove /run/netns/{a.name}", "remove")
    d.cmd(f"add /run/netns/{b.name}", "add")
    err = d.close()
    assert d.proc.returncode == 0
    lines = [l for l in err.splitlines() if l.startswith("IcmpErrResponder: bpf_map_update_elem")]
    assert len(lines) == 2, err   # once per family


def test_a_full_ring_counts_each_lost_record_as_dropped(net):
    h1, h2 = net.ns("h1"), net.ns("h2")
    r = net.router(h1, "192.0.2", h2, "198.51.100")
    r.sysctl("net.ipv4.icmp_ratelimit", 0)
    d = Records()
    try:
        # One page holds three 1100-byte records with their 8-byte headers.
        d.cmd("load 4096", "loaded")
        d.cmd(f"add /run/netns/{r.name}", "add")
        for _ in range(5):
            udp(h1, "198.51.100.2", 100)
        _, stats = d.cmd("stats", "stats")
        assert (stats["ipv4"]["queued"], stats["ipv4"]["dropped"]) == (3, 2), stats
        assert len(d.drain()) == 3
        udp(h1, "198.51.100.2", 100)
        assert len(d.drain()) == 1
    finally:
        d.close()
