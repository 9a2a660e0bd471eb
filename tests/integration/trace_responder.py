#!/usr/bin/python3
"""A hop that answers expiring packets with RFC 4884/5837 extended time-exceeded errors built by
scapy, independently of Ravel's codec.

Usage: trace_responder.py IFACE CONFIG_JSON. It listens on IFACE (an AF_PACKET socket sees the
packets before netfilter, which the test tells to drop them so the kernel stays silent) and
answers every packet arriving with TTL/hop limit 1 for CONFIG["v4"]["dst"] or
CONFIG["v6"]["dst"] with an error from that family's "src", carrying an incoming interface
object ("intf": ifindex, addr, name, mtu), a node identification object ("node": classnum,
addr, name) and, with "other", a raw object of class 1 c-type 1 whose body is "other" in hex.
Prints "ready" once listening.
"""
import json
import struct
import sys
from pathlib import Path

from scapy.all import ICMP, IP, IPv6, Ether, ICMPv6TimeExceeded, Raw, conf, get_if_hwaddr
from scapy.contrib.icmp_extensions import ICMPExtensionInterfaceInformation

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "lib"))
from scapy_icmp_extension import addr_fields, name_fields, node_object, structure  # noqa: E402


def extension(cfg):
    i = cfg["intf"]
    objs = bytes(ICMPExtensionInterfaceInformation(
        interface_role=0, has_ifindex=1, ifindex=i["ifindex"], **addr_fields(i["addr"]),
        **name_fields(i["name"]), has_mtu=1, mtu=i["mtu"]))
    n = cfg["node"]
    objs += node_object(n["classnum"], n["addr"], n["name"])
    if cfg.get("other"):
        body = bytes.fromhex(cfg["other"])
        objs += struct.pack("!HBB", 4 + len(body), 1, 1) + body
    return structure(objs)


def main():
    iface, cfg = sys.argv[1], json.loads(sys.argv[2])
    mac = get_if_hwaddr(iface)
    extn = {af: extension(c) for af, c in cfg.items()}
    listen = conf.L2listen(iface=iface)
    out = conf.L2socket(iface=iface)
    print("ready", flush=True)
    while True:
        pkt = listen.recv()
        if pkt is None or Ether not in pkt or pkt[Ether].src == mac:
            continue
        if IP in pkt and "v4" in cfg and pkt[IP].ttl == 1 and pkt[IP].dst == cfg["v4"]["dst"]:
            quote = (bytes(pkt[IP])[:128]).ljust(128, b"\0")
            reply = (IP(src=cfg["v4"]["src"], dst=pkt[IP].src, ttl=64) /
                     ICMP(type=11, code=0, length=32) / Raw(quote + extn["v4"]))
        elif (IPv6 in pkt and "v6" in cfg and pkt[IPv6].hlim == 1 and
              pkt[IPv6].dst == cfg["v6"]["dst"]):
            quote = (bytes(pkt[IPv6])[:128]).ljust(128, b"\0")
            reply = (IPv6(src=cfg["v6"]["src"], dst=pkt[IPv6].src, hlim=64) /
                     ICMPv6TimeExceeded(code=0, length=16) / Raw(quote + extn["v6"]))
        else:
            continue
        out.send(Ether(src=mac, dst=pkt[Ether].src) / reply)


if __name__ == "__main__":
    main()
