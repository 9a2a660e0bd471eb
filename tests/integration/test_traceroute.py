"""ravelctl traceroute against a hop whose extended errors scapy builds.

client (VRF <tag>tc)          hop                               server
  c0 192.0.2.1      <--->  h0 192.0.2.2      h1 198.51.100.1  <--->  s0 198.51.100.2
     2001:db8:1::1            2001:db8:1::2     2001:db8:2::1             2001:db8:2::2

The hop forwards, but drops packets arriving with TTL/hop limit 1 in prerouting, before the
kernel would answer them; trace_responder.py answers those from an AF_PACKET socket instead.
"""
import json
import select
import subprocess
from pathlib import Path

import pytest

from conftest import RAVELCTL, Netns, sh, wait_for

HERE = Path(__file__).resolve().parent
NODE_CLASS = 200
LONG_NAME = "ge-0/0/0.4094-" + "n" * 49  # 63 bytes, the most a name sub-object carries
assert len(LONG_NAME) == 63

SENT = {
    "v4": dict(dst="198.51.100.2", src="192.0.2.2",
               intf=dict(ifindex=4242, addr="192.0.2.2", name="ge-0/0/1.100", mtu=9000),
               node=dict(classnum=NODE_CLASS, addr="203.0.113.254", name="hop1.example"),
               other="0001f1ff"),
    "v6": dict(dst="2001:db8:2::2", src="2001:db8:1::2",
               intf=dict(ifindex=77, addr="2001:db8:1::2", name=LONG_NAME, mtu=1280),
               node=dict(classnum=NODE_CLASS, addr="2001:db8:ff::1", name="hop1-v6.example")),
}


@pytest.fixture
def topo(namespaces):
    client = Netns(f"ns-{namespaces.tag}tc")
    namespaces.made.append(client)
    hop, server = namespaces.make("th"), namespaces.make("ts")
    sh("ip", "-n", client.name, "link", "add", "c0", "type", "veth", "peer", "name", "h0",
       "netns", hop.name)
    sh("ip", "-n", hop.name, "link", "add", "h1", "type", "veth", "peer", "name", "s0", "netns",
       server.name)
    for ns, dev, v4, v6 in ((client, "c0", "192.0.2.1/24", "2001:db8:1::1/64"),
                            (hop, "h0", "192.0.2.2/24", "2001:db8:1::2/64"),
                            (hop, "h1", "198.51.100.1/24", "2001:db8:2::1/64"),
                            (server, "s0", "198.51.100.2/24", "2001:db8:2::2/64")):
        ns.run("ip", "addr", "add", v4, "dev", dev)
        ns.run("ip", "addr", "add", v6, "dev", dev, "nodad")
        ns.run("ip", "link", "set", dev, "up")
    for ns, gw4, gw6 in ((client, "192.0.2.2", "2001:db8:1::2"),
                         (server, "198.51.100.1", "2001:db8:2::1")):
        ns.run("ip", "route", "add", "default", "via", gw4)
        ns.run("ip", "-6", "route", "add", "default", "via", gw6)
    hop.run("sysctl", "-qw", "net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1")
    hop.run("nft", "add table inet expire; add chain inet expire pre "
            "{ type filter hook prerouting priority -300; }; "
            "add rule inet expire pre ip ttl 1 drop; add rule inet expire pre ip6 hoplimit 1 drop")
    # The first packets on fresh veths can be lost while their links come up: wait for the path.
    for dst in ("198.51.100.2", "2001:db8:2::2"):
        assert wait_for(lambda: client.run("ping", "-c1", "-W1", dst, check=False).returncode == 0,
                        timeout=10), f"no path to {dst}"
    responder = hop.popen("/usr/bin/python3",
                          HERE / "trace_responder.py", "h0", json.dumps(SENT),
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        ready, _, _ = select.select([responder.stdout], [], [], 20)
        line = responder.stdout.readline() if ready else ""
        if line.strip() != "ready":
            responder.kill()
            pytest.fail(f"responder not ready: {line}{responder.stderr.read()}")
        yield client.name[len("ns-"):]
    finally:
        responder.kill()
        responder.wait()


def traceroute(vrf, *args):
    return sh(RAVELCTL, "traceroute", *args, "--vrf", vrf, "--max-hops", "5", "--timeout", "2",
              "--node-id-class", NODE_CLASS, check=False, timeout=30)


def expected_extensions(sent):
    i, n = sent["intf"], sent["node"]
    ext = {"interfaces": [{"role": "incoming", "ifIndex": i["ifindex"], "address": i["addr"],
                           "name": i["name"], "mtu": i["mtu"]}],
           "node": {"address": n["addr"], "hostName": n["name"]}}
    if sent.get("other"):
        ext["other"] = [{"classNum": 1, "cType": 1, "hex": sent["other"]}]
    return ext


@pytest.mark.privileged
@pytest.mark.parametrize("af", ["v4", "v6"])
@pytest.mark.parametrize("proto", ["--udp", "--icmp"])
def test_traceroute_decodes_scapy_extensions(topo, af, proto):
    sent = SENT[af]
    r = traceroute(topo, sent["dst"], proto, "--json")
    assert r.returncode == 0, r.stdout + r.stderr
    doc = json.loads(r.stdout)
    assert doc["destination"] == sent["dst"]
    assert doc["family"] == ("ipv4" if af == "v4" else "ipv6")
    assert doc["protocol"] == proto[2:]
    assert doc["reached"] is True
    assert [h["ttl"] for h in doc["hops"]] == [1, 2], r.stdout
    first, last = doc["hops"]
    assert first["probes"] == 3 and len(first["replies"]) == 3
    for reply in first["replies"]:
        assert reply["address"] == sent["src"]
        assert (reply["type"], reply["code"]) == ((11, 0) if af == "v4" else (3, 0))
        assert reply["extensions"] == expected_extensions(sent)
    assert last["replies"], last
    for reply in last["replies"]:
        assert reply["address"] == sent["dst"]
        assert reply["meaning"] == ("port unreachable" if proto == "--udp" else "echo reply")
        assert "extensions" not in reply


@pytest.mark.privileged
def test_traceroute_text_names_the_objects(topo):
    sent = SENT["v4"]
    r = traceroute(topo, sent["dst"], "--queries", "1")
    assert r.returncode == 0, r.stdout + r.stderr
    lines = r.stdout.splitlines()
    assert lines[0].startswith("traceroute to 198.51.100.2 (198.51.100.2), 5 hops max")
    assert lines[1].startswith(" 1  192.0.2.2  ") and lines[1].endswith("time exceeded in transit")
    assert lines[2].strip() == ("incoming interface: name ge-0/0/1.100, ifIndex 4242, "
                                "address 192.0.2.2, MTU 9000")
    assert lines[3].strip() == "node: host hop1.example, address 203.0.113.254"
    assert lines[4].strip() == "object class 1, c-type 1, 4 bytes: 0001f1ff"
    assert lines[5].startswith(" 2  198.51.100.2  ") and lines[5].endswith("port unreachable")
    assert len(lines) == 6


@pytest.mark.privileged
def test_traceroute_without_node_class_lists_the_node_object_as_unknown(topo):
    r = sh(RAVELCTL, "traceroute", SENT["v6"]["dst"], "--vrf", topo, "--max-hops", "1",
           "--queries", "1", "--json", check=False, timeout=30)
    assert r.returncode == 1, r.stdout + r.stderr  # not reached within one hop
    ext = json.loads(r.stdout)["hops"][0]["replies"][0]["extensions"]
    assert "node" not in ext
    assert [(o["classNum"], o["cType"]) for o in ext["other"]] == [(NODE_CLASS, 0x06)]
