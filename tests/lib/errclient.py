"""Sends one packet that makes a router answer with an ICMP error and prints, as JSON, every
ICMP/ICMPv6 error that comes back within a time limit and quotes that packet.

usage: errclient.py udp|icmp|tcp DEST [--ttl N] [--source ADDR] [--wait S] [--size N]
  udp: a UDP datagram to port 33434 (--size bytes of payload, 100 by default); icmp: an echo
  request; tcp: a connection attempt (SYN) to port 33434. --ttl 1 makes the first router answer
  with time exceeded; a full TTL reaches the destination (port unreachable from it).
Output: [{"from": ADDR, "icmp": HEX}, ...], the ICMP messages from their ICMP header on.
"""
import argparse
import ipaddress
import json
import os
import select
import socket
import struct
import time

ERRORS = {4: (3, 11), 6: (1, 3)}
PORT = 33434


def main():
    p = argparse.ArgumentParser()
    p.add_argument("kind", choices=("udp", "icmp", "tcp"))
    p.add_argument("dest")
    p.add_argument("--ttl", type=int, default=64)
    p.add_argument("--source")
    p.add_argument("--wait", type=float, default=1.0)
    p.add_argument("--size", type=int, default=100)
    a = p.parse_args()
    fam = ipaddress.ip_address(a.dest).version
    af = socket.AF_INET if fam == 4 else socket.AF_INET6
    proto = socket.IPPROTO_ICMP if fam == 4 else socket.IPPROTO_ICMPV6
    rx = socket.socket(af, socket.SOCK_RAW, proto)
    ttl_opt = (socket.IPPROTO_IP, socket.IP_TTL) if fam == 4 else \
        (socket.IPPROTO_IPV6, socket.IPV6_UNICAST_HOPS)
    ident = os.getpid() & 0xffff
    payload = None
    if a.kind == "udp":
        tx = socket.socket(af, socket.SOCK_DGRAM)
        payload = (b"ravel-vm-test" + bytes(max(0, a.size - 13)))[:a.size]
    elif a.kind == "tcp":
        tx = socket.socket(af, socket.SOCK_STREAM)
        tx.setblocking(False)
    else:
        tx = socket.socket(af, socket.SOCK_RAW, proto)
        typ = 8 if fam == 4 else 128
        body = struct.pack("!BBHHH", typ, 0, 0, ident, 1) + bytes(56)
        if fam == 4:
            s = sum(struct.unpack("!%dH" % (len(body) // 2), body))
            while s >> 16:
                s = (s & 0xffff) + (s >> 16)
            body = body[:2] + struct.pack("!H", ~s & 0xffff) + body[4:]
        payload = body  # the kernel fills the ICMPv6 checksum of a raw ICMPv6 socket
    tx.setsockopt(*ttl_opt, a.ttl)
    if a.source:
        tx.bind((a.source, 0))
    if a.kind == "tcp":
        tx.connect_ex((a.dest, PORT))
    else:
        tx.sendto(payload, (a.dest, PORT if a.kind == "udp" else 0))
    mine = struct.pack("!H", ident if a.kind == "icmp" else tx.getsockname()[1])
    found, end = [], time.monotonic() + a.wait
    while (left := end - time.monotonic()) > 0:
        if not select.select([rx], [], [], left)[0]:
            break
        pkt, peer = rx.recvfrom(65535)
        icmp = pkt[(pkt[0] & 15) * 4:] if fam == 4 else pkt
        if len(icmp) < 8 or icmp[0] not in ERRORS[fam]:
            continue
        quote = icmp[8:]
        qdst = quote[16:20] if fam == 4 else quote[24:40]
        if len(quote) < (20 if fam == 4 else 40) or \
                ipaddress.ip_address(bytes(qdst)) != ipaddress.ip_address(a.dest):
            continue
        # Ours, not an earlier packet's to the same place: the quoted source port or echo id.
        l4 = quote[(quote[0] & 15) * 4:] if fam == 4 else quote[40:]
        if len(l4) >= 6 and l4[(4 if a.kind == "icmp" else 0):][:2] != mine:
            continue
        found.append({"from": peer[0], "icmp": icmp.hex()})
    print(json.dumps(found))


if __name__ == "__main__":
    main()
