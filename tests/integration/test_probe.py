"""The PROBE responder end to end: real sockets, real kernel state, requests from scapy."""
import json
import os
import tempfile
import time
from pathlib import Path

import pytest

import probepkt as P
from conftest import RAVELCTL, Daemon, Namespaces, sh, wait_for
from probeclient import exchange
from topo import CLIENT6, ROUTER4, ROUTER6, build_router, ifindex

pytestmark = pytest.mark.privileged

CONFIG = """
probe:
  enabled: true
  ifname: true
  ifindex: true
  ifaddr: true
  remote: {remote}
  max-queue-length: {qlen}
  vrfs: {{blue: {{}}}}
"""


@pytest.fixture(scope="module")
def lab():
    nss = Namespaces()
    work = tempfile.TemporaryDirectory(prefix="ravel-probe-")
    try:
        router, client, blue = nss.make("r"), nss.make("c"), nss.make("b")
        build_router(nss, router, client)
        sh("ip", "-n", blue.name, "link", "add", "b0", "type", "veth", "peer", "name", "b0p")
        blue.run("ip", "addr", "add", "10.9.9.9/24", "dev", "b0")
        blue.run("ip", "link", "set", "b0", "up")
        wd = Path(work.name)
        (wd / "netns").mkdir()
        os.symlink(blue.path, wd / "netns" / "ns-blue")
        cfg = wd / "ravel.yaml"
        cfg.write_text(CONFIG.format(remote="true", qlen=1024))
        d = Daemon(router, wd, config=cfg).start()
        # Interfaces, addresses, neighbours and VRFs reach the store asynchronously.
        def ready():
            s = json.loads(d.ctl("show", "state", "--json").stdout)
            intfs = s.get("interfaces", {})
            return ("blue/b0" in intfs and "ipv4" in intfs.get("r0", {})
                    and len(s.get("arp", [])) >= 3 and len(s.get("nd", [])) >= 1)
        assert wait_for(ready, 5)
        yield {"router": router, "client": client, "daemon": d, "config": cfg, "blue": blue}
        d.stop()
    finally:
        nss.close()
        work.cleanup()


def counters(d):
    return d.probe_status()["status"]


def req(af, msg, ident, seq, **kw):
    return dict(af=af, dst=ROUTER4 if af == 4 else ROUTER6, msg=msg, id=ident, seq=seq, **kw)


def v6msg(m, src=CLIENT6, dst=ROUTER6):
    c = P.icmp6_checksum(src, dst, m)
    return m[:2] + c.to_bytes(2, "big") + m[4:]


def build(case, ident, seq):
    """(af, ICMP bytes) of a table case."""
    af = case.get("af", 4)
    obj = P.intf_object(**case["obj"])
    ext = P.extension(obj, version=case.get("version", 2), bad_checksum=case.get("bad_ext", False))
    m = P.request(ident, seq, case.get("local", True), ext, v6=(af == 6),
                  bad_checksum=case.get("bad_icmp", False), icmp_type=case.get("type"))
    if "cut" in case:
        m = m[:case["cut"]]
    if af == 6:
        m = v6msg(m)
    return af, m


def test_replies_codes_state_bits_and_counters(lab):
    d, router, client = lab["daemon"], lab["router"], lab["client"]
    idx_r0 = ifindex(router, "r0")
    # What needs the real kernel: state bits from its links, ARP/ND entries, what a raw socket
    # delivers. Parsing and policy cases are the unit tests'.
    cases = [
        # what, request, expected (code, byte 7) or None for no reply, counter that moves
        ("name up v4+v6", {"obj": {"name": "r0"}}, (0, 0x07), "responsesSent"),
        ("name v4 only", {"obj": {"name": "r1"}}, (0, 0x06), "responsesSent"),
        ("name admin down", {"obj": {"name": "r2"}}, (0, 0x00), "responsesSent"),
        ("name up, no addresses", {"obj": {"name": "r1p"}}, (0, 0x04), "responsesSent"),
        ("ifindex", {"obj": {"index": idx_r0}}, (0, 0x07), "responsesSent"),
        ("address v6 over v6", {"af": 6, "obj": {"addr": ROUTER6}}, (0, 0x07), "responsesSent"),
        ("other VRF's interface", {"obj": {"name": "blue/b0"}}, (2, 0), "wrongVrfRequested"),
        ("remote, one match", {"local": False, "obj": {"addr": "192.0.2.77"}}, (0, 0x40), "responsesSent"),
        ("remote v6, one match", {"af": 6, "local": False, "obj": {"addr": "2001:db8::77"}}, (0, 0x40), "responsesSent"),
        # Linux gives raw ICMP sockets nothing shorter than an 8-byte ICMP header; the shortest
        # request that arrives is a bare header (the extension summed to zero, so the ICMP
        # checksum still holds without it).
        ("no extension", {"obj": {"name": "r0"}, "cut": 8}, None, "pktTooShort"),
    ]
    before = counters(d)
    requests, sent = [], []
    for i, (what, case, _, _) in enumerate(cases):
        af, m = build(case, 0x4000 + i, i)
        sent.append(m)
        requests.append(req(af, m, 0x4000 + i, i))
    replies = exchange(client, requests, timeout=0.5)
    after = counters(d)
    expected_moves = {}
    for (what, case, expect, counter), m, r in zip(cases, sent, replies):
        expected_moves[counter] = expected_moves.get(counter, 0) + 1
        if expect is None:
            assert r is None, what
            continue
        assert r is not None, what
        rep = P.parse_reply(r)
        code, byte7 = expect
        assert rep["type"] == (161 if case.get("af") == 6 else 43), what
        assert (rep["code"], rep["byte7"]) == (code, byte7), what
        assert len(r) == len(m) and r[8:] == m[8:], f"{what}: tail changed"
        if case.get("af", 4) == 4:
            assert P.checksum(r) == 0, what
        if counter != "responsesSent":
            expected_moves["responsesSent"] = expected_moves.get("responsesSent", 0) + 1
    expected_moves["requestsReceived"] = len(cases)
    moved = {n: after[n] - before[n] for n in after if n not in ("codeCount", "lastTxErrno") and after[n] != before[n]}
    assert moved == expected_moves


def test_policy_follows_configuration_reload(lab):
    d, client, cfg = lab["daemon"], lab["client"], lab["config"]
    try:
        cfg.write_text(CONFIG.format(remote="false", qlen=1024))
        assert wait_for(lambda: "remote: false" in d.ctl("show", "config").stdout, 3)
        before = counters(d)
        af, m = build({"local": False, "obj": {"addr": "192.0.2.77"}}, 0x5000, 1)
        assert exchange(client, [req(af, m, 0x5000, 1)], timeout=0.5) == [None]
        assert counters(d)["requestTypeNotAllowed"] == before["requestTypeNotAllowed"] + 1
        # A broken file is reported and changes nothing.
        cfg.write_text("probe:\n  remote: maybe\n")
        time.sleep(0.3)
        shown = d.ctl("show", "config").stdout
        assert "last reload failed" in shown and "expected a boolean" in shown
        assert "enabled: true" in shown
    finally:
        cfg.write_text(CONFIG.format(remote="true", qlen=1024))
        wait_for(lambda: "remote: true" in d.ctl("show", "config").stdout, 3)


def test_source_lists_follow_configuration(lab):
    """A request kind's source list, through the daemon and the file: the client's prefix
    refused, then permitted; other kinds and a family without such a list as configured."""
    d, client, cfg = lab["daemon"], lab["client"], lab["config"]
    base = CONFIG.format(remote="true", qlen=1024)
    lists = "  sources: {{ifname: NOC}}\nacls:\n  ipv4:\n    NOC: [{{action: permit, source: {}}}]\n"
    cases = [
        # NOC permits, case, answered
        ("198.51.100.0/24", {"obj": {"name": "r0"}}, False),
        ("198.51.100.0/24", {"obj": {"index": ifindex(lab["router"], "r0")}}, True),
        ("192.0.2.0/24", {"obj": {"name": "r0"}}, True),
        ("192.0.2.0/24", {"af": 6, "obj": {"name": "r0"}}, False),  # no IPv6 list NOC
    ]
    try:
        for i, (permit, case, answered) in enumerate(cases):
            cfg.write_text(base + lists.format(permit))
            assert wait_for(lambda: permit in d.ctl("show", "config").stdout, 3)
            before = counters(d)["sourceNotAuthorized"]
            af, m = build(case, 0x6000 + i, i)
            [r] = exchange(client, [req(af, m, 0x6000 + i, i)], timeout=0.5)
            assert (r is not None) == answered, (permit, case)
            assert counters(d)["sourceNotAuthorized"] == before + (0 if answered else 1)
    finally:
        cfg.write_text(base)
        wait_for(lambda: "NOC" not in d.ctl("show", "config").stdout, 3)


# Sends each request to an address of the namespace itself over a raw socket (local delivery,
# which scapy's link-layer send cannot do) and prints the reply codes by identifier.
LOCAL_PROBES = r"""
import json, select, socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
want = {}
for ident, m in json.loads(sys.stdin.read()):
    s.sendto(bytes.fromhex(m), ("10.9.9.9", 0))
    want[ident] = None
end = time.monotonic() + 2
while None in want.values() and time.monotonic() < end:
    if select.select([s], [], [], 0.1)[0]:
        p = s.recv(2048)
        icmp = p[(p[0] & 15) * 4:]
        ident = int.from_bytes(icmp[4:6], "big")
        if icmp[0] == 43 and ident in want:
            want[ident] = icmp[1]
print(json.dumps(want))
"""


def test_probe_in_a_vrf_uses_that_vrfs_interfaces(lab):
    """A request received in VRF blue is answered from blue's socket, about blue's own
    interfaces by name, index and address; the default VRF's interfaces are not there."""
    blue = lab["blue"]
    cases = [({"name": "b0"}, 0), ({"index": ifindex(blue, "b0")}, 0), ({"addr": "10.9.9.9"}, 0),
             ({"name": "r0"}, 2)]
    msgs = [[0x7000 + i, P.request(0x7000 + i, i, True, P.extension(P.intf_object(**obj))).hex()]
            for i, (obj, _) in enumerate(cases)]
    out = blue.run("/usr/bin/python3", "-c", LOCAL_PROBES, input=json.dumps(msgs)).stdout
    codes = json.loads(out)
    assert [codes[str(0x7000 + i)] for i in range(len(cases))] == [c for _, c in cases], out


def test_link_down_follows(lab):
    d, router, client = lab["daemon"], lab["router"], lab["client"]
    router.run("ip", "link", "set", "r1", "down")
    try:
        assert wait_for(lambda: json.loads(d.ctl("show", "state", "--json").stdout)
                        ["interfaces"]["r1"]["oper"] == "down", 3)
        af, m = build({"obj": {"name": "r1"}}, 0x6000, 1)
        [r] = exchange(client, [req(af, m, 0x6000, 1)])
        assert P.parse_reply(r)["byte7"] == 0
    finally:
        # Taking the link down flushed its neighbours, the permanent ones too.
        router.run("ip", "link", "set", "r1", "up")
        router.run("ip", "neigh", "replace", "198.51.100.88", "lladdr", "02:00:00:00:00:89",
                   "dev", "r1", "nud", "permanent")


def test_ravelctl_probe_client(lab):
    client = lab["client"]
    ctl = str(RAVELCTL)
    r = client.run(ctl, "probe", ROUTER4, "--ifname", "r0", "--count", "2", check=False)
    assert r.returncode == 0, r.stdout
    assert r.stdout.count("code=0 (No Error) state=0 A=1 4=1 6=1") == 2
    r = client.run(ctl, "probe", ROUTER6, "--ifaddr", "198.51.100.1", check=False)
    assert r.returncode == 0 and "A=1 4=1 6=0" in r.stdout
    r = client.run(ctl, "probe", ROUTER4, "--ifname", "nope0", check=False)
    assert r.returncode == 1 and "code=2 (No Such Interface)" in r.stdout
    r = client.run(ctl, "probe", ROUTER4, "--remote", "--ifaddr", "198.51.100.88", check=False)
    assert r.returncode == 1 and "code=4 (Multiple Interfaces Satisfy Query)" in r.stdout


def link_local(ns, dev):
    """The device's fe80:: address once duplicate address detection is done, else None."""
    addrs = json.loads(ns.run("ip", "-j", "-6", "addr", "show", "dev", dev).stdout)
    for a in addrs[0]["addr_info"] if addrs else []:
        if a.get("scope") == "link" and not a.get("tentative"):
            return a["local"]
    return None


def test_reply_leaves_through_the_arrival_interface(lab):
    """A link-local source is only valid with its interface; a global one of another interface
    must still be accepted on the arrival interface."""
    d, router, client = lab["daemon"], lab["router"], lab["client"]
    assert wait_for(lambda: link_local(router, "r0") and link_local(client, "c0"), 5)
    router_ll, client_ll = link_local(router, "r0"), link_local(client, "c0")
    router.run("ip", "link", "add", "r9", "type", "veth", "peer", "name", "r9p")
    try:
        router.run("ip", "addr", "add", "100.64.9.1/24", "dev", "r9")
        router.run("ip", "addr", "add", "2001:db8:9::1/64", "dev", "r9", "nodad")
        router.run("ip", "link", "set", "r9", "up")
        router.run("ip", "link", "set", "r9p", "up")
        client.run("ip", "route", "replace", "100.64.9.0/24", "via", ROUTER4)
        client.run("ip", "-6", "route", "replace", "2001:db8:9::/64", "via", ROUTER6)
        cases = [
            # what, family, source, destination, interface that scopes a link-local destination
            ("link-local to link-local", 6, client_ll, router_ll, "c0"),
            ("v6 global of another interface", 6, CLIENT6, "2001:db8:9::1", None),
            ("v4 address of another interface", 4, None, "100.64.9.1", None),
        ]
        before = counters(d)
        requests = []
        for i, (what, af, src, dst, iface) in enumerate(cases):
            m = P.request(0x7000 + i, i, True, P.extension(P.intf_object(name="r0")), v6=(af == 6))
            if af == 6:
                m = v6msg(m, src, dst)
            requests.append(dict(af=af, src=src, dst=dst, iface=iface, msg=m, id=0x7000 + i, seq=i))
        replies = exchange(client, requests, timeout=0.5)
        after = counters(d)
        for (what, af, *_), r in zip(cases, replies):
            moved = {k: after[k] - before[k] for k in after if k not in ("codeCount", "lastTxErrno") and after[k] != before[k]}
            assert r is not None, f"{what}: no reply (moved {moved}, lastTxErrno {after['lastTxErrno']})"
            rep = P.parse_reply(r)
            assert (rep["type"], rep["code"], rep["byte7"]) == (161 if af == 6 else 43, 0, 0x07), what
        assert after["txErrors"] == before["txErrors"]
        assert after["responsesSent"] == before["responsesSent"] + len(cases)
    finally:
        client.run("ip", "route", "del", "100.64.9.0/24", check=False)
        client.run("ip", "-6", "route", "del", "2001:db8:9::/64", check=False)
        router.run("ip", "link", "del", "r9", check=False)
