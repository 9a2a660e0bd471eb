"""The probe tests' network: a client namespace and a router namespace on a veth pair.

router (the daemon's default VRF)         client
  r0 192.0.2.2/24 2001:db8::2/64   <--->  c0 192.0.2.1/24 2001:db8::1/64
  r1 198.51.100.1/24, IPv6 disabled (peer r1p, up, no addresses)
  r2 203.0.113.1/24, administratively down
VRF blue (namespace ns-blue in the daemon's namespace directory): b0, 10.9.9.9/24
"""
import json

from conftest import sh

CLIENT4, ROUTER4 = "192.0.2.1", "192.0.2.2"
CLIENT6, ROUTER6 = "2001:db8::1", "2001:db8::2"


def build_router(namespaces, router, client):
    r, c = router, client
    sh("ip", "-n", r.name, "link", "add", "r0", "type", "veth", "peer", "name", "c0", "netns", c.name)
    sh("ip", "-n", r.name, "link", "add", "r1", "type", "veth", "peer", "name", "r1p")
    sh("ip", "-n", r.name, "link", "add", "r2", "type", "veth", "peer", "name", "r2p")
    r.run("sysctl", "-qw", "net.ipv6.conf.r1.disable_ipv6=1")
    r.run("sysctl", "-qw", "net.ipv6.conf.r1p.disable_ipv6=1")
    for ns, dev, v4, v6 in ((r, "r0", ROUTER4, ROUTER6), (c, "c0", CLIENT4, CLIENT6)):
        ns.run("ip", "addr", "add", v4 + "/24", "dev", dev)
        ns.run("ip", "addr", "add", v6 + "/64", "dev", dev, "nodad")
        ns.run("ip", "link", "set", dev, "up")
    r.run("ip", "addr", "add", "198.51.100.1/24", "dev", "r1")
    r.run("ip", "link", "set", "r1", "up")
    r.run("ip", "link", "set", "r1p", "up")
    r.run("ip", "addr", "add", "203.0.113.1/24", "dev", "r2")
    # Static neighbours for remote probes: one entry, and one address on two interfaces.
    r.run("ip", "neigh", "replace", "192.0.2.77", "lladdr", "02:00:00:00:00:77", "dev", "r0", "nud", "permanent")
    r.run("ip", "neigh", "replace", "198.51.100.88", "lladdr", "02:00:00:00:00:88", "dev", "r0", "nud", "permanent")
    r.run("ip", "neigh", "replace", "198.51.100.88", "lladdr", "02:00:00:00:00:89", "dev", "r1", "nud", "permanent")
    r.run("ip", "-6", "neigh", "replace", "2001:db8::77", "lladdr", "02:00:00:00:00:77", "dev", "r0", "nud", "permanent")


def ifindex(ns, dev):
    return json.loads(ns.run("ip", "-j", "link", "show", "dev", dev).stdout)[0]["ifindex"]


def build_twins(namespaces, tag):
    """Two routers built alike, each with its client: one for ravel, one where the kernel's
    own PROBE responder is on (Linux answers ICMPv6 PROBEs under the same IPv4 sysctl).
    Returns ((ravel router, client), (kernel router, client))."""
    rr, rc = namespaces.make(tag + "r"), namespaces.make(tag + "c")
    kr, kc = namespaces.make(tag + "k"), namespaces.make(tag + "kc")
    build_router(namespaces, rr, rc)
    build_router(namespaces, kr, kc)
    kr.run("sysctl", "-qw", "net.ipv4.icmp_echo_enable_probe=1")
    return (rr, rc), (kr, kc)
