#!/usr/bin/python3
"""Golden replies for TracerouteTest.cpp, built with scapy's RFC 4884/5837 layers.

Each reply quotes a traceroute probe: UDP 40000 -> 33434 (probe 0) with 32 zero bytes, TTL/hop
limit 1. Prints the probes, then one C++ row per case: the ICMP header and, for a message with
extensions, the structure after the quote (the probe padded with zeros to 128 bytes); the
script checks each message is exactly that.
"""
import struct
import sys
from pathlib import Path

from scapy.all import ICMP, IP, UDP, IPv6, ICMPv6TimeExceeded, Raw
from scapy.contrib.icmp_extensions import ICMPExtensionInterfaceInformation

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "lib"))
from scapy_icmp_extension import addr_fields, name_fields, node_object, structure  # noqa: E402

PROBE4 = bytes(IP(src="192.0.2.1", dst="198.51.100.2", ttl=1, id=1) /
               UDP(sport=40000, dport=33434) / Raw(bytes(32)))
PROBE6 = bytes(IPv6(src="2001:db8:1::1", dst="2001:db8:2::2", hlim=1) /
               UDP(sport=40000, dport=33434) / Raw(bytes(32)))
V6_HOP, V6_CLIENT = "2001:db8:1::2", "2001:db8:1::1"
LONG_NAME = "ge-0/0/0.4094-" + "n" * 49  # 63 bytes


def intf(ifindex, addr, name, mtu):
    return bytes(ICMPExtensionInterfaceInformation(
        interface_role=0, has_ifindex=1, ifindex=ifindex, **addr_fields(addr),
        **name_fields(name), has_mtu=1, mtu=mtu))


def v4(type_, code, objs=None, bad_checksum=False):
    if objs is None:
        return bytes(ICMP(type=type_, code=code) / Raw(PROBE4))
    return bytes(ICMP(type=type_, code=code, length=32) /
                 Raw(PROBE4.ljust(128, b"\0") + structure(objs, bad_checksum)))


def v6(objs):
    pkt = (IPv6(src=V6_HOP, dst=V6_CLIENT) / ICMPv6TimeExceeded(code=0, length=16) /
           Raw(PROBE6.ljust(128, b"\0") + structure(objs)))
    return bytes(pkt)[40:]


CASES = {
    "kPlain": v4(11, 0),
    "kIntfAndNode": v4(11, 0, intf(5, "10.0.1.1", b"eth1", 1500) +
                       node_object(200, "192.0.2.1", b"router1")),
    "kLongNameV6": v6(intf(77, V6_HOP, LONG_NAME.encode(), 1280) +
                      node_object(200, "2001:db8:ff::1", b"r1")),
    "kUnknownObject": v4(3, 3, struct.pack("!HBB", 8, 1, 1) + bytes.fromhex("0001f1ff")),
    "kBadChecksum": v4(11, 0, intf(5, "10.0.1.1", b"eth1", 1500), bad_checksum=True),
    "kOddNames": v4(11, 0, intf(6, "10.0.2.1", b"e\x1b[0m\\", 0) +
                    node_object(200, "192.0.2.1", b"r\xff")),
}

if __name__ == "__main__":
    print(f'const char* kProbe4 = "{PROBE4.hex()}";')
    print(f'const char* kProbe6 = "{PROBE6.hex()}";')
    for name, msg in CASES.items():
        probe = PROBE6 if name.endswith("V6") else PROBE4
        if len(msg) == 8 + len(probe):
            tail = b""
        else:
            tail = msg[8 + 128:]
            assert msg[8:8 + 128] == probe.ljust(128, b"\0")
        assert msg[8:8 + len(probe)] == probe
        print(f'{{"{name}", "{msg[:8].hex()}", "{tail.hex()}"}},')
