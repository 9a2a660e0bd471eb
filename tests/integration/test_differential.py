"""Ravel against the Linux kernel's own PROBE responder, on twin networks.

Both routers are built the same way (topo.py); one runs ravel, the other has the kernel's
responder switched on (net.ipv4.icmp_echo_enable_probe, which also governs ICMPv6 PROBEs). The same local requests must get the same code and A/4/6 bits. Where the two must differ,
the case names the difference and both sides are pinned down.
"""
import tempfile
from pathlib import Path

import pytest

import probepkt as P
from conftest import Daemon, Namespaces
from probeclient import exchange
from topo import CLIENT6, ROUTER4, ROUTER6, build_twins, ifindex

pytestmark = pytest.mark.privileged

CONFIG = "probe: {enabled: true, ifname: true, ifindex: true, ifaddr: true, remote: true}\n"


@pytest.fixture(scope="module")
def twins():
    nss = Namespaces()
    work = tempfile.TemporaryDirectory(prefix="ravel-diff-")
    try:
        (ravel_r, ravel_c), (kern_r, kern_c) = build_twins(nss, "d")
        wd = Path(work.name)
        (wd / "ravel.yaml").write_text(CONFIG)
        d = Daemon(ravel_r, wd, config=wd / "ravel.yaml").start()
        yield {"ravel": (ravel_r, ravel_c), "kernel": (kern_r, kern_c)}
        d.stop()
    finally:
        nss.close()
        work.cleanup()


def outcome(reply):
    if reply is None:
        return None
    r = P.parse_reply(reply)
    return (r["code"], r["A"], r["4"], r["6"])


# what, object, L bit, family, difference (None: must agree)
CASES = [
    ("name up v4+v6", {"name": "r0"}, True, 4, None),
    ("name v4 only", {"name": "r1"}, True, 4, None),
    ("name up, no addresses", {"name": "r1p"}, True, 4, None),
    ("unknown name", {"name": "nope0"}, True, 4, None),
    ("ifindex r0", {"index": "r0"}, True, 4, None),
    ("unknown ifindex", {"index": 9999}, True, 4, None),
    ("address v4", {"addr": "198.51.100.1"}, True, 4, None),
    ("address v6", {"addr": ROUTER6}, True, 4, None),
    ("unknown address", {"addr": "10.200.0.1"}, True, 4, None),
    # RFC 8335 section 2 requires the Interface Identification Object (class 3); the kernel
    # does not look at the class.
    ("object class 2", {"name": "r0", "cls": 2}, True, 4, "class-not-checked"),
    ("object C-Type 9", {"name": "r0", "ctype": 9}, True, 4, None),
    # RFC 8335 section 3 reports IPv4/IPv6 for an active interface; Ravel clears 4 and 6 when
    # the interface is not up, the kernel reports the addresses it still holds.
    ("name admin down", {"name": "r2"}, True, 4, "down-interface-bits"),
    # The kernel answers only local probes (L=1); Ravel resolves remote ones via ARP/ND.
    ("remote, one neighbour", {"addr": "192.0.2.77"}, False, 4, "remote"),
    ("name over v6", {"name": "r0"}, True, 6, None),
    ("address over v6", {"addr": "198.51.100.1"}, True, 6, None),
    ("unknown name over v6", {"name": "nope0"}, True, 6, None),
    # Ravel drops a request whose extension structure is broken (RFC 4884 version, checksum)
    # before looking at the object; the kernel checks neither and answers.
    ("extension version 1", {"name": "r0", "ext": {"version": 1}}, True, 4, "ext-version"),
    ("bad extension checksum", {"name": "r0", "ext": {"bad_checksum": True}}, True, 4,
     "ext-checksum"),
]

DIFFERENCES = {
    # name: (kernel outcome, ravel outcome)
    "down-interface-bits": ((0, 0, 1, 0), (0, 0, 0, 0)),
    "remote": (None, (0, 0, 0, 0)),
    "class-not-checked": ((0, 1, 1, 1), (1, 0, 0, 0)),
    "ext-version": ((0, 1, 1, 1), None),
    "ext-checksum": ((0, 1, 1, 1), None),
}


def test_same_answers_as_the_kernel(twins):
    results = {}
    for side in ("ravel", "kernel"):
        router, client = twins[side]
        reqs = []
        for i, (what, obj, local, af, _) in enumerate(CASES):
            obj = dict(obj)
            ext = obj.pop("ext", {})
            if isinstance(obj.get("index"), str):
                obj["index"] = ifindex(router, obj["index"])
            m = P.request(0x7000 + i, i, local, P.extension(P.intf_object(**obj), **ext), v6=(af == 6))
            if af == 6:
                c = P.icmp6_checksum(CLIENT6, ROUTER6, m)
                m = m[:2] + c.to_bytes(2, "big") + m[4:]
            reqs.append({"af": af, "dst": ROUTER4 if af == 4 else ROUTER6, "msg": m,
                         "id": 0x7000 + i, "seq": i})
        results[side] = [outcome(r) for r in exchange(client, reqs, timeout=0.5)]
    report, wrong = [], []
    for i, (what, _, _, _, diff) in enumerate(CASES):
        k, r = results["kernel"][i], results["ravel"][i]
        report.append(f"{what}: kernel {k} ravel {r}")
        expected = (k, k) if diff is None else DIFFERENCES[diff]
        if (k, r) != expected:
            wrong.append(f"{what}{' (' + diff + ')' if diff else ''}: kernel {k} ravel {r}")
    print("\n".join(report))
    assert not wrong, wrong
