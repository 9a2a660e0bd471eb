"""Ravel never leaves a router worse than without it: whatever fails, the sender gets the
kernel's plain error, and Ravel's extended one once the fault is gone.

Topology, built once for the module: the router's own namespace (the default VRF) and VRF red
(namespace ns-red), each with a client and a server (see test_vm_errors.Site), and in the
router's namespace a Linux VRF device `blue` holding two more interfaces with their own client
and server. Each test starts its own daemon with suppression of the kernel's errors on.
"""
import json
import os
import signal
import subprocess
import time

import pytest

from test_vm_errors import (BIN, CLIENT, PORT_UNREACH, TTL_EXCEEDED, ErrorsView, Site, addr,
                            parse_error)

pytestmark = pytest.mark.vm

# The kernel lets its errors through at most this long after the agent stops renewing.
RECOVERY = 2.0


class Topology:
    def __init__(self, net):
        self.sites = {v: Site(net, v) for v in ("default", "red")}
        r = self.router = self.sites["default"].router
        # FRR-style VRF device in the router: blue holds vb1 (to bc) and vb2 (to bs).
        self.bc, self.bs = net.ns("bc"), net.ns("bs")
        r.run("ip", "link", "add", "blue", "type", "vrf", "table", "10")
        r.run("ip", "link", "set", "blue", "up")
        for host, dev, n in ((self.bc, "vb1", 1), (self.bs, "vb2", 2)):
            r.run("ip", "link", "add", dev, "type", "veth", "peer", "name", "eth0",
                  "netns", host.name)
            r.run("ip", "link", "set", dev, "master", "blue")
            r.run("ip", "addr", "add", f"10.9.{n}.1/24", "dev", dev)
            r.run("ip", "link", "set", dev, "up")
            host.run("ip", "addr", "add", f"10.9.{n}.2/24", "dev", "eth0")
            host.run("ip", "link", "set", "eth0", "up")
            host.run("ip", "route", "add", "default", "via", f"10.9.{n}.1")


@pytest.fixture(scope="module")
def topo():
    from vmnet import Net
    net = Net()
    try:
        yield Topology(net)
    finally:
        net.close()


class Ravel(ErrorsView):
    """The daemon in the router's namespace with one configuration."""

    def __init__(self, topo, tmp, config, prefix=()):
        self.topo, self.tmp = topo, tmp
        self.sock, self.cfg = tmp / "ravel.sock", tmp / "ravel.yaml"
        self.cfg.write_text(config)
        self.log = open(tmp / "ravel.log", "w")
        self.proc = subprocess.Popen(
            ["ip", "netns", "exec", topo.router.name, *prefix, BIN / "ravel", "--config",
             self.cfg, "--socket", self.sock, "--netns-dir", "/run/netns"],
            stdout=self.log, stderr=subprocess.STDOUT, env=dict(os.environ, LUMEN_DISABLE="1"))

    def reload(self, config):
        self.cfg.write_text(config)
        self.proc.send_signal(signal.SIGHUP)

    def ctl(self, *args, check=True):
        return self.topo.router.run(BIN / "ravelctl", "--socket", self.sock, *args, check=check)

    def dropping(self, vrf, fams=("ipv4", "ipv6")):
        """Waits until the kernel's errors of `fams` are dropped in `vrf`."""
        return self.wait_for(
            lambda e: all(e["families"][f]["vrfs"].get(vrf, {}).get("kernelErrorsDropped")
                          for f in fams), f"kernel errors dropped in {vrf}")

    def close(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGCONT)
            self.proc.terminate()
            self.proc.wait(10)
        self.log.close()


@pytest.fixture
def ravel(topo, tmp_path):
    made = []

    def start(config, prefix=()):
        d = Ravel(topo, tmp_path, config, prefix)
        made.append(d)
        return d
    yield start
    for d in made:
        d.close()


def config(vrfs="default: {enabled: true}", extra=""):
    return f"error-responder:\n  {extra}\n  vrfs:\n    {vrfs}\n"


def errors_for(site, fam, kind="udp", ttl=1, size=100, dest=None):
    dest = dest or addr(fam, 1, 2)
    out = site.client.run("/usr/bin/python3", CLIENT, kind, dest, "--ttl", ttl, "--size", size,
                          "--source", addr(fam, 0, 2)).stdout
    return [parse_error(fam, bytes.fromhex(x["icmp"])) for x in json.loads(out)]


def plain(errs, want=TTL_EXCEEDED, fam=4):
    return len(errs) == 1 and (errs[0]["type"], errs[0]["code"]) == want[fam] and \
        not errs[0]["intfs"]


def extended(errs, want=TTL_EXCEEDED, fam=4):
    return len(errs) == 1 and (errs[0]["type"], errs[0]["code"]) == want[fam] and \
        bool(errs[0]["intfs"])


def eventually(check, timeout):
    """The first result of check() that is true within `timeout`, or the last one."""
    deadline = time.time() + timeout
    while True:
        got = check()
        if got or time.time() > deadline:
            return got
        time.sleep(0.1)


FAMS = [4, 6]


@pytest.mark.parametrize("fam", FAMS)
def test_a_stopped_daemon_gives_back_the_kernels_errors_and_resumes(topo, ravel, fam):
    d = ravel(config())
    d.dropping("default")
    site = topo.sites["default"]
    assert extended(errors_for(site, fam), fam=fam)
    d.proc.send_signal(signal.SIGSTOP)
    time.sleep(RECOVERY)
    assert plain(errors_for(site, fam), fam=fam)
    d.proc.send_signal(signal.SIGCONT)
    d.dropping("default")
    assert eventually(lambda: extended(errors_for(site, fam), fam=fam), 5)


@pytest.mark.parametrize("fam", FAMS)
def test_a_full_ring_gives_back_the_kernels_errors_for_a_while(topo, ravel, fam):
    d = ravel(config(extra="ring-buffer-size: 4096"))  # three records
    d.dropping("default")
    site = topo.sites["default"]
    d.proc.send_signal(signal.SIGSTOP)
    for _ in range(6):
        site.client.run("/usr/bin/python3", CLIENT, "udp", addr(fam, 1, 2), "--ttl", 1,
                        "--wait", 0)
    time.sleep(RECOVERY)
    # Awake, the agent sees the drops first and holds the kernel's errors back no longer. It
    # still answers what it takes from the ring, whose kernel copy may have been dropped: the
    # sender may get Ravel's error too, after the kernel's.
    d.proc.send_signal(signal.SIGCONT)
    errs = errors_for(site, fam)
    assert errs and plain(errs[:1], fam=fam), errs
    assert eventually(lambda: extended(errors_for(site, fam), fam=fam), 10)
    assert d.errors()["families"][f"ipv{fam}"]["counters"]["ringBufDropped"] == 3


@pytest.mark.parametrize("fam", FAMS)
def test_a_vrf_left_out_of_a_full_map_keeps_the_kernels_errors(topo, ravel, fam):
    both = "default: {enabled: true}\n    red: {enabled: true}"
    d = ravel(config(both, "vrf-map-size: 1"))
    d.dropping("default")
    assert d.errors()["vrfMapAddFailed"] >= 1
    assert plain(errors_for(topo.sites["red"], fam), fam=fam)
    assert extended(errors_for(topo.sites["default"], fam), fam=fam)
    # The default VRF lets its place go: red takes it.
    d.reload(config("default: {enabled: false}\n    red: {enabled: true}", "vrf-map-size: 1"))
    d.dropping("red")
    assert eventually(lambda: extended(errors_for(topo.sites["red"], fam), fam=fam), 5)


@pytest.mark.parametrize("fam", FAMS)
def test_a_vrf_enabled_by_the_global_switch_gets_extended_errors(topo, ravel, fam):
    d = ravel("error-responder:\n  enabled: true\n")
    d.dropping("red")
    assert extended(errors_for(topo.sites["red"], fam), fam=fam)


def test_programs_that_cannot_load_leave_the_kernels_errors(topo, ravel):
    # A daemon without the capabilities to load kernel programs (a unit file missing them).
    d = ravel(config(), prefix=("setpriv", "--bounding-set", "-bpf,-sys_admin,-perfmon", "--"))
    e = d.wait_for(lambda e: e["ebpfLoadFailed"] >= 2, "both loads failed")
    assert all("loadError" in f for f in e["families"].values()), e
    for fam in FAMS:
        assert plain(errors_for(topo.sites["default"], fam), fam=fam)


def test_interfaces_of_a_vrf_device_keep_the_kernels_errors(topo, ravel):
    d = ravel(config())
    d.dropping("default")
    out = topo.bc.run("/usr/bin/python3", CLIENT, "udp", "10.9.2.2", "--ttl", 1).stdout
    errs = [parse_error(4, bytes.fromhex(x["icmp"])) for x in json.loads(out)]
    assert plain(errs), errs
    assert extended(errors_for(topo.sites["default"], 4))


@pytest.mark.parametrize("fam", FAMS)
@pytest.mark.parametrize("kind, size, dest, want", [
    ("tcp", 0, None, TTL_EXCEEDED), ("udp", 100, None, TTL_EXCEEDED),
    ("udp", 4, "router", PORT_UNREACH)])
def test_tcp_udp_and_tiny_datagrams_get_extended_errors(topo, ravel, fam, kind, size, dest,
                                                        want):
    d = ravel(config())
    d.dropping("default")
    site = topo.sites["default"]
    to = addr(fam, 0, 1) if dest == "router" else addr(fam, 1, 2)
    errs = errors_for(site, fam, kind, ttl=64 if dest else 1, size=size, dest=to)
    assert extended(errs, want, fam), errs
    intf = errs[0]["intfs"][0]
    assert intf["name"] == "rl" and intf["ifIndex"] == site.ifindex["rl"], errs


def transfer(site, fam, megabytes):
    """Seconds to send `megabytes` over TCP from the client to the server."""
    server = addr(fam, 1, 2)
    listener = subprocess.Popen(
        ["ip", "netns", "exec", site.server.name, "/usr/bin/python3", "-c",
         "import socket,sys\n"
         f"s=socket.socket(socket.AF_INET{'6' if fam == 6 else ''});"
         "s.setsockopt(socket.SOL_SOCKET,socket.SO_REUSEADDR,1);"
         f"s.bind(('{server}',5001));s.listen(1);print('ready',flush=True)\n"
         "c,_=s.accept()\n"
         "while c.recv(65536): pass\n"], stdout=subprocess.PIPE, text=True)
    assert listener.stdout.readline().strip() == "ready"
    start = time.monotonic()
    site.client.run("/usr/bin/python3", "-c",
                    "import socket\n"
                    f"s=socket.create_connection(('{server}',5001),timeout=60)\n"
                    f"s.sendall(bytes({megabytes << 20}));s.shutdown(socket.SHUT_WR);s.recv(1)\n",
                    timeout=90)
    listener.wait(30)
    return time.monotonic() - start


def frag_needed_listener(site):
    """Collects, in the client, the ICMP frag-needed errors that arrive while it runs."""
    return subprocess.Popen(
        ["ip", "netns", "exec", site.client.name, "/usr/bin/python3", "-c",
         "import socket,select,time,json\n"
         "r=socket.socket(socket.AF_INET,socket.SOCK_RAW,socket.IPPROTO_ICMP);out=[]\n"
         "end=time.monotonic()+float(input())\n"
         "while time.monotonic()<end:\n"
         "  if select.select([r],[],[],0.2)[0]:\n"
         "    p=r.recv(65535);i=p[(p[0]&15)*4:]\n"
         "    if i[0]==3 and i[1]==4: out.append(i.hex())\n"
         "print(json.dumps(out))\n"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)


def test_path_mtu_discovery_through_a_smaller_link(topo, ravel):
    site = topo.sites["default"]
    site.router.run("ip", "link", "set", "rr", "mtu", "1280")
    try:
        times = {}
        for who in ("kernel", "ravel"):
            for fam in FAMS:
                site.client.run("ip", f"-{fam}", "route", "flush", "cache")
            d = ravel(config()) if who == "ravel" else None
            if d:
                d.dropping("default")
            listener = frag_needed_listener(site)
            listener.stdin.write("20\n")
            listener.stdin.flush()
            times[who] = {fam: transfer(site, fam, 4) for fam in FAMS}
            listener.stdin.close()
            got = json.loads(listener.stdout.read())
            if d:
                # Ravel's frag-needed: the next-hop MTU in the header, the interface in the
                # extension.
                errs = [parse_error(4, bytes.fromhex(h)) for h in got]
                assert errs and errs[0]["intfs"], got
                assert int(got[0][12:16], 16) == 1280, got
                c = d.errors()["families"]["ipv4"]["counters"]
                assert c["insufficientDataLen"] == 0, c
                d.close()
        print("4 MiB across a 1280-byte link, seconds:", json.dumps(times))
    finally:
        site.router.run("ip", "link", "set", "rr", "mtu", "1500")
