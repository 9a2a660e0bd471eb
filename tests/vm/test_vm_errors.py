"""The daemon's extended errors end to end on a kernel with kprobes.

Topology, built once for the module: in the router's own namespace (the default VRF) and in VRF
red (namespace ns-red), a client and a server on either side of a forwarding router, both
families. Ravel runs in the router namespace. Every case sends one packet and expects exactly
one error back: the kernel's own plain error is dropped where Ravel answers.
"""
import ipaddress
import json
import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

pytestmark = pytest.mark.vm

ROOT = Path(__file__).resolve().parents[2]
BIN = Path(os.environ.get("RAVEL_BUILD", ROOT / "build")) / "bin"
CLIENT = Path(__file__).resolve().parents[1] / "lib" / "errclient.py"
NODE_CLASS = 200
NETS = {4: ("192.0.2", "198.51.100"), 6: ("2001:db8:1::", "2001:db8:2::")}


def addr(fam, side, host):
    net = NETS[fam][side]
    return f"{net}.{host}" if fam == 4 else f"{net}{host}"


CONFIG = f"""
error-responder:
  enabled: true
  node-id-code-point: {NODE_CLASS}
  vrfs:
    default:
      node-id: {{ ipv4: 203.0.113.7, ipv6: "2001:db8:ff::7" }}
      interface-info: {{ outgoing: [ifindex, address, name, mtu], next-hop: [address] }}
    red:
      enabled: {{red}}
      ipv4-acl: RED4
      ipv6-acl: RED6
      interface-info: {{ incoming: [{{red_incoming}}], outgoing: [ifindex, address, name, mtu],
                         next-hop: [address] }}
acls:
  ipv4:
    RED4: [ {{ action: deny, source: 192.0.2.3/32 }}, {{ action: permit }} ]
  ipv6:
    RED6: [ {{ action: deny, source: "2001:db8:1::3/128" }}, {{ action: permit }} ]
"""


def parse_error(fam, msg):
    """An ICMP error decoded here, independently of Ravel: type, code, and the RFC 5837
    interface objects and node object of its RFC 4884 extension structure."""
    out = {"type": msg[0], "code": msg[1], "intfs": [], "node": None}
    length = msg[5] * 4 if fam == 4 else msg[4] * 8
    ext = msg[8 + length:] if length else b""
    if len(ext) < 4:
        return out
    assert ext[0] >> 4 == 2, "extension version"
    ext = ext[4:]
    while len(ext) >= 4:
        size, cls, ctype = int.from_bytes(ext[:2], "big"), ext[2], ext[3]
        body, ext = ext[4:size], ext[size:]
        o = {}
        if cls == 2:
            o["role"] = ctype >> 6
        if ctype & 0x08:
            o["ifIndex"], body = int.from_bytes(body[:4], "big"), body[4:]
        if ctype & 0x04:
            afi, n = int.from_bytes(body[:2], "big"), (4 if body[1] == 1 else 16)
            o["address"] = str(ipaddress.ip_address(bytes(body[4:4 + n])))
            body = body[4 + n:]
        if ctype & 0x02:
            o["name"] = bytes(body[1:body[0]]).rstrip(b"\0").decode()
            body = body[body[0]:]
        if ctype & 0x01:
            o["mtu"], body = int.from_bytes(body[:4], "big"), body[4:]
        assert not body, f"trailing bytes in class {cls}"
        if cls == 2:
            out["intfs"].append(o)
        elif cls == NODE_CLASS:
            out["node"] = o
    return out


class Site:
    """One VRF's client, router and server."""

    def __init__(self, net, vrf):
        self.vrf = vrf
        tag = "d" if vrf == "default" else vrf
        self.client, self.server = net.ns(f"{tag}c"), net.ns(f"{tag}s")
        self.router = net.router(self.client, NETS[4][0], self.server, NETS[4][1],
                                 name=None if vrf == "default" else f"ns-{vrf}",
                                 suffix=f"{tag}r", v6=NETS[6])
        for key in ("net.ipv4.icmp_ratelimit", "net.ipv6.icmp.ratelimit"):
            self.router.sysctl(key, 0)
        # A missing neighbour fails after one quick solicitation.
        for f in ("ipv4", "ipv6"):
            self.router.sysctl(f"net.{f}.neigh.rr.mcast_solicit", 1)
            self.router.sysctl(f"net.{f}.neigh.rr.retrans_time_ms", 100)
        for fam in (4, 6):
            self.client.run("ip", "addr", "add",
                            addr(fam, 0, 3) + ("/24" if fam == 4 else "/64"), "dev", "eth0")
        self.ifindex = {d: int(self.router.run("cat", f"/sys/class/net/{d}/ifindex").stdout)
                        for d in ("rl", "rr")}

    def send(self, kind, dest, ttl=64, source=None):
        # An explicit source: IPv6 would pick the client's second address (the denied one).
        fam = 6 if ":" in dest else 4
        args = ["/usr/bin/python3", CLIENT, kind, dest, "--ttl", ttl,
                "--source", source or addr(fam, 0, 2)]
        return json.loads(self.client.run(*args).stdout)


class ErrorsView:
    """`show errors` of a daemon, and waiting on it; the class gives ctl() and tmp."""

    def errors(self):
        r = self.ctl("show", "errors", "--json", check=False)
        return json.loads(r.stdout) if r.returncode == 0 else None

    def wait_for(self, cond, what, timeout=60):
        deadline = time.time() + timeout
        while time.time() < deadline:
            e = self.errors()
            if e and cond(e):
                return e
            time.sleep(0.2)
        pytest.fail(f"{what}: not reached; log:\n" + (self.tmp / "ravel.log").read_text())


class Router(ErrorsView):
    def __init__(self, net, tmp):
        self.sites = {v: Site(net, v) for v in ("default", "red")}
        self.tmp, self.sock, self.cfg = tmp, tmp / "ravel.sock", tmp / "ravel.yaml"
        self.configure(red=True)
        self.log = open(tmp / "ravel.log", "w")
        self.daemon = subprocess.Popen(
            ["ip", "netns", "exec", self.sites["default"].router.name, BIN / "ravel",
             "--config", self.cfg, "--socket", self.sock, "--netns-dir", "/run/netns"],
            stdout=self.log, stderr=subprocess.STDOUT, env=dict(os.environ, LUMEN_DISABLE="1"))
        self.wait_for(lambda e: all(e["families"][f]["loaded"] and "red" in e["families"][f]["vrfs"]
                                    for f in ("ipv4", "ipv6")), "programs loaded for both VRFs")

    def configure(self, red, red_incoming="ifindex, address, name, mtu"):
        self.cfg.write_text(CONFIG.replace("{red}", str(red).lower())
                            .replace("{red_incoming}", red_incoming))

    def ctl(self, *args, check=True):
        return self.sites["default"].router.run(BIN / "ravelctl", "--socket", self.sock, *args,
                                                check=check)


    def close(self):
        if self.daemon.poll() is None:
            self.daemon.terminate()
            self.daemon.wait(10)
        self.log.close()


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    from vmnet import Net
    net = Net()
    r = None
    try:
        r = Router(net, tmp_path_factory.mktemp("ravel"))
        yield r
    finally:
        if r:
            r.close()
        net.close()


def one_error(found, fam):
    assert len(found) == 1, f"expected exactly one error, got {len(found)}: {found}"
    return parse_error(fam, bytes.fromhex(found[0]["icmp"]))


TTL_EXCEEDED = {4: (11, 0), 6: (3, 0)}
PORT_UNREACH = {4: (3, 3), 6: (1, 4)}
HOST_UNREACH = {4: (3, 1), 6: (1, 3)}


@pytest.mark.parametrize("vrf", ["default", "red"])
@pytest.mark.parametrize("fam", [4, 6])
@pytest.mark.parametrize("case", ["udp-hop", "icmp-hop", "port-unreachable", "host-unreachable"])
def test_each_error_is_one_extended_error_naming_the_interface(router, vrf, fam, case):
    site = router.sites[vrf]
    if case == "udp-hop":
        found, want = site.send("udp", addr(fam, 1, 2), ttl=1), TTL_EXCEEDED
    elif case == "icmp-hop":
        found, want = site.send("icmp", addr(fam, 1, 2), ttl=1), TTL_EXCEEDED
    elif case == "port-unreachable":
        found, want = site.send("udp", addr(fam, 0, 1)), PORT_UNREACH
    else:
        found, want = site.send("udp", addr(fam, 1, 99)), HOST_UNREACH
    err = one_error(found, fam)
    assert (err["type"], err["code"]) == want[fam]

    def intf(role, dev):
        return {"role": role, "ifIndex": site.ifindex[dev],
                "address": addr(fam, 0 if dev == "rl" else 1, 1),
                "name": dev if vrf == "default" else f"{vrf}/{dev}", "mtu": 1500}
    # Incoming, then for a packet the router was forwarding the outgoing interface and the next
    # hop (here the destination itself, on the outgoing link).
    want_intfs = [intf(0, "rl")]
    if case != "port-unreachable":
        dest = addr(fam, 1, 99 if case == "host-unreachable" else 2)
        want_intfs += [intf(2, "rr"), {"role": 3, "address": dest}]
    assert err["intfs"] == want_intfs, err
    node = {"name": "ravel-vm"}
    if vrf == "default":
        node["address"] = "203.0.113.7" if fam == 4 else "2001:db8:ff::7"
    assert err["node"] == node, err


@pytest.mark.parametrize("fam", [4, 6])
def test_an_acl_deny_gets_one_plain_error(router, fam):
    site = router.sites["red"]
    err = one_error(site.send("udp", addr(fam, 1, 2), ttl=1, source=addr(fam, 0, 3)), fam)
    assert (err["type"], err["code"]) == TTL_EXCEEDED[fam]
    assert err["intfs"] == [] and err["node"] is None, err


def test_debian_traceroute_and_ravelctl_traceroute_see_the_extensions(router):
    site = router.sites["default"]
    for fam in (4, 6):
        r = site.client.run("traceroute", f"-{fam}", "-e", "-n", "-q", "1", "-w", "1",
                            addr(fam, 1, 2), check=False)
        print(r.stdout, r.stderr)
        assert r.returncode == 0
        for proto in ("--udp", "--icmp"):
            t = site.client.run(BIN / "ravelctl", "traceroute", addr(fam, 1, 2), proto,
                                "--queries", "1", "--node-id-class", NODE_CLASS, "--json")
            print(t.stdout)
            hop = json.loads(t.stdout)["hops"][0]["replies"][0]
            assert hop["extensions"]["interfaces"][0]["name"] == "rl"
            assert hop["extensions"]["node"]["hostName"] == "ravel-vm"


def test_counters_add_up(router):
    def settled(e):
        for f in e["families"].values():
            c = f["counters"]
            if c["pktInfoReceived"] != c["pktInfoProcessed"] + c["nsValidationFailed"]:
                return False
            if c["ringBufQueued"] != (c["pktInfoReceived"] + c["invalidDataSize"]
                                      + c["insufficientDataLen"]):
                return False
        return True

    e = router.wait_for(settled, "received = processed + rejected", timeout=10)
    print(json.dumps(e, indent=1))
    for fam, f in e["families"].items():
        assert f["counters"]["pktInfoProcessed"] > 0, fam
        for vrf, v in f["vrfs"].items():
            c = v["counters"]
            assert c["replyAttempted"] == (c["rfc792ErrorSent"] + c["extendedErrorSent"]
                                           + c["pamNotFound"] + c["replySendFailed"]), (fam, vrf)
            assert c["extendedErrorSent"] > 0, (fam, vrf)


def test_a_vrf_discloses_what_it_is_told(router):
    """Turning the name off in red's incoming object removes that sub-object alone."""
    red = router.sites["red"]
    router.configure(red=True, red_incoming="ifindex, address, mtu")
    router.daemon.send_signal(signal.SIGHUP)
    try:
        for fam in (4, 6):
            def incoming():
                err = one_error(red.send("udp", addr(fam, 1, 2), ttl=1), fam)
                return err["intfs"][0]
            got = incoming()
            for _ in range(20):  # the reload is asynchronous
                if "name" not in got:
                    break
                time.sleep(0.2)
                got = incoming()
            assert got == {"role": 0, "ifIndex": red.ifindex["rl"],
                           "address": addr(fam, 0, 1), "mtu": 1500}, got
    finally:
        router.configure(red=True)
        router.daemon.send_signal(signal.SIGHUP)


def test_a_malformed_ip_option_gets_an_extended_parameter_problem(router):
    site = router.sites["default"]
    # A timestamp option whose pointer (1) is below its minimum (5): the router answers with a
    # parameter problem pointing at it (byte 22 of the header).
    script = ("from scapy.all import IP, UDP, IPOption, ICMP, raw, sr1\n"
              f"p = IP(src='{addr(4, 0, 2)}', dst='{addr(4, 1, 2)}', "
              "options=IPOption(bytes([0x44, 8, 1, 0, 0, 0, 0, 0]))) / UDP(dport=33434)\n"
              "r = sr1(p, timeout=3, verbose=0)\n"
              "print(raw(r[ICMP]).hex() if r is not None and ICMP in r else '')\n")
    got = site.client.run("/usr/bin/python3", "-c", script).stdout.strip()
    assert got, "no answer"
    msg = bytes.fromhex(got)
    err = parse_error(4, msg)
    assert (err["type"], msg[4]) == (12, 22), got
    assert err["intfs"] and err["intfs"][0]["name"] == "rl", err


def ravel_table(ns):
    return "table inet ravel" in ns.run("nft", "list", "tables").stdout


def test_a_disabled_vrf_gets_the_kernels_plain_error(router):
    red = router.sites["red"]
    assert ravel_table(red.router)
    router.configure(red=False)
    router.daemon.send_signal(signal.SIGHUP)
    router.wait_for(lambda e: all("red" not in f["vrfs"] for f in e["families"].values()),
                    "red no longer programmed")
    assert not ravel_table(red.router)
    for fam in (4, 6):
        err = one_error(red.send("udp", addr(fam, 1, 2), ttl=1), fam)
        assert (err["type"], err["code"]) == TTL_EXCEEDED[fam] and err["intfs"] == [], err


def test_sigkill_restores_the_kernels_errors_at_once(router):
    site = router.sites["default"]
    assert ravel_table(site.router)
    router.daemon.send_signal(signal.SIGKILL)
    router.daemon.wait(10)
    assert not ravel_table(site.router)
    for fam in (4, 6):
        err = one_error(site.send("udp", addr(fam, 1, 2), ttl=1), fam)
        assert (err["type"], err["code"]) == TTL_EXCEEDED[fam] and err["intfs"] == [], err
