#!/usr/bin/python3
"""Golden ICMP errors for IcmpExtensionTest.cpp, built with scapy's RFC 4884/5837 layers.

Prints the base datagrams and one C++ table row per case; paste them into the test. Each
message is checked to be header + quoted datagram + zero padding + extension structure, so the
test embeds only the header and the structure as hex.
"""
import sys
from pathlib import Path

from scapy.all import IP, UDP, IPv6, Raw, ICMP, ICMPv6TimeExceeded, ICMPv6DestUnreach
from scapy.contrib.icmp_extensions import ICMPExtensionInterfaceInformation

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "lib"))
from scapy_icmp_extension import addr_fields, name_fields, node_object, structure  # noqa: E402

V6_SRC, V6_DST = "2001:db8:1::1", "2001:db8:2::2"


def pattern(n):
    return bytes((i * 7 + 1) & 0xFF for i in range(n))


# The offending packets: 1024 bytes long, so every quote is a prefix of one.
DGRAM4 = bytes(IP(src="198.51.100.7", dst="203.0.113.9", ttl=1, id=0x1234) /
               UDP(sport=40000, dport=33434) / Raw(pattern(1024 - 28)))
DGRAM6 = bytes(IPv6(src="2001:db8:3::7", dst="2001:db8:4::9", hlim=1) /
               UDP(sport=40000, dport=33434) / Raw(pattern(1024 - 48)))
assert len(DGRAM4) == 1024 and len(DGRAM6) == 1024
assert DGRAM4[28:] == pattern(996) and DGRAM6[48:] == pattern(976)


def intf_object(role, ifindex, addr, name, mtu):
    f = dict(interface_role=role)
    if ifindex:
        f.update(has_ifindex=1, ifindex=ifindex)
    f.update(addr_fields(addr))
    if name:
        f.update(name_fields(name))
    if mtu:
        f.update(has_mtu=1, mtu=mtu)
    return ICMPExtensionInterfaceInformation(**f)


def build(c):
    v6 = c["af"] == "v6"
    dgram = (DGRAM6 if v6 else DGRAM4)[:c["quoted"]]
    ext = c.get("intf") is not None
    if ext:
        quote = (dgram + bytes(128))[:128]
    else:
        quote = dgram[:1232 if v6 else 548]
    extn = None
    if ext:
        objs = b"".join(bytes(intf_object(*i)) for i in intfs(c))
        if c.get("node"):
            objs += node_object(*c["node"])
        extn = Raw(structure(objs))
    if v6:
        cls = ICMPv6TimeExceeded if c["type"] == 3 else ICMPv6DestUnreach
        icmp = cls(code=c["code"], length=16 if ext else 0) / Raw(quote)
        if extn is not None:
            icmp = icmp / extn
        msg = bytes(IPv6(src=V6_SRC, dst=V6_DST) / icmp)[40:]
    else:
        f = dict(type=c["type"], code=c["code"], length=32 if ext else 0)
        if c["type"] == 3 and c["code"] == 4:
            f["nexthopmtu"] = c["rest"] & 0xFFFF
        if c["type"] == 12:
            f["ptr"] = c["rest"] >> 24
        icmp = ICMP(**f) / Raw(quote)
        if extn is not None:
            icmp = icmp / extn
        msg = bytes(icmp)
    in_quote = min(len(dgram), len(quote))
    head, tail = msg[:8], msg[8 + len(quote):]
    assert msg == head + dgram[:in_quote] + bytes(len(quote) - in_quote) + tail
    return head, in_quote, tail


def cpp_addr(a):
    return f'ip("{a}")' if a else "IpGenAddr()"


def intfs(c):
    """A case's interface objects, in the order sent: one tuple or a list of them."""
    i = c.get("intf")
    return [] if i is None else i if isinstance(i, list) else [i]


def cpp_intfs(c):
    roles = ["incoming", "subIp", "outgoing", "nextHop"]
    return "{" + ", ".join(f'{{IcmpIntfRole::{roles[r]}, {x}, {cpp_addr(a)}, "{n}", {m}}}'
                           for r, x, a, n, m in intfs(c)) + "}"


def cpp_node(n):
    if not n:
        return "std::nullopt"
    return f'IcmpNodeIdObject{{{n[0]}, {cpp_addr(n[1])}, "{n[2]}"}}'


LONG_NAME = "Port-Channel1000.4094-" + "x" * 48  # 70 bytes
LONG_HOST = "spine-" + "0123456789" * 8  # 86 bytes

ETH1 = (0, 7, "192.0.2.1", "Ethernet1", 1500)
CASES = [
    # The interface of a port unreachable; a rest of header other than a code 4 MTU is dropped.
    dict(name="v4 port unreachable", af="v4", type=3, code=3, rest=0xDEADBEEF, quoted=60,
         intf=ETH1),
    dict(name="v4 host unreachable: outgoing", af="v4", type=3, code=1, rest=0, quoted=60,
         intf=(2,) + ETH1[1:]),
    dict(name="v4 frag needed, plain", af="v4", type=3, code=4, rest=1400, quoted=20),
    dict(name="v4 frag needed", af="v4", type=3, code=4, rest=0xFFFF0578, quoted=128,
         intf=(0, 12, "10.1.2.3", "Ethernet12", 1400)),
    dict(name="v4 node without address", af="v4", type=11, code=0, rest=0, quoted=548,
         intf=ETH1, node=(200, None, "router1.example")),
    dict(name="v4 node with address", af="v4", type=11, code=1, rest=0, quoted=1024,
         intf=(0, 4096, "203.0.113.254", "Vlan100", 9000), node=(200, "198.51.100.1", "r1")),
    dict(name="v4 long names", af="v4", type=3, code=3, rest=0, quoted=20,
         intf=(0, 1000001, "192.0.2.1", LONG_NAME, 1500), node=(133, None, LONG_HOST)),
    dict(name="v4 empty interface", af="v4", type=11, code=0, rest=0, quoted=40,
         intf=(0, 0, None, "", 0)),
    dict(name="v4 plain 1024", af="v4", type=11, code=0, rest=0, quoted=1024),
    dict(name="v4 plain 548", af="v4", type=3, code=3, rest=0, quoted=548),
    # RFC 4884 section 4.4: a parameter problem keeps its pointer beside the length.
    dict(name="v4 parameter problem", af="v4", type=12, code=0, rest=0x14000000, quoted=60,
         intf=ETH1),
    # Every role a forwarded packet's error can name: incoming, outgoing, then the next hop.
    dict(name="v4 incoming, outgoing and next hop", af="v4", type=11, code=0, rest=0, quoted=100,
         intf=[ETH1, (2, 9, "198.51.100.1", "Ethernet9", 1280), (3, 0, "198.51.100.2", "", 0)]),
    # What a VRF discloses: name and MTU, or ifIndex and MTU, without the rest. (tshark 4.0
    # shows a name sub-object only when an MTU follows it.)
    dict(name="v6 incoming name and MTU, outgoing ifIndex and MTU", af="v6", type=3, code=0,
         rest=0, quoted=200, intf=[(0, 0, None, "Ethernet1", 1500), (2, 12, None, "", 1280)]),
    dict(name="v6 time exceeded", af="v6", type=3, code=0, rest=0, quoted=1024,
         intf=(0, 7, "2001:db8::5", "Ethernet1", 9214), node=(201, "2001:db8::ff", "router1")),
    dict(name="v6 address unreachable: outgoing", af="v6", type=1, code=3, rest=0, quoted=128,
         intf=(2, 33, "2001:db8:5::1", "Ethernet2/1", 1500)),
    dict(name="v6 port unreachable, ifIndex only", af="v6", type=1, code=4, rest=0, quoted=48,
         intf=(0, 9, None, "", 0)),
    dict(name="v6 plain 1024", af="v6", type=1, code=4, rest=0, quoted=1024),
]


def main():
    print(f'const char* kDatagram4Head = "{DGRAM4[:28].hex()}";')
    print(f'const char* kDatagram6Head = "{DGRAM6[:48].hex()}";')
    for c in CASES:
        head, in_quote, tail = build(c)
        af = "AddressFamily::ipv6" if c["af"] == "v6" else "AddressFamily::ipv4"
        ext = "true" if c.get("intf") else "false"
        print(f'{{"{c["name"]}", {af}, {c["type"]}, {c["code"]}, {c["rest"]:#x}, {c["quoted"]}, '
              f'{ext}, {cpp_intfs(c)}, {cpp_node(c.get("node"))}, '
              f'"{head.hex()}", {in_quote}, "{tail.hex()}"}},')


if __name__ == "__main__":
    main()
