"""Runs inside a client namespace: sends PROBE requests and collects Extended Echo Replies.

Input (stdin, JSON): {"timeout": s, "requests": [{"af": 4|6, "dst": addr, "src": addr,
"msg": hex, "frag": n (IPv4 fragment offset, optional), "proto": n (optional), "iface": name
(optional, IPv6 only: sent from a plain socket scoped to it, as a link-local destination needs), "id": n, "seq": n}]}. Output (stdout, JSON): one entry per request, the reply's ICMP message as hex,
or null. Replies are matched on type 43/161 with the request's identifier and sequence.
"""
import json
import select
import socket
import sys
import time

from scapy.all import IP, IPv6, Raw, conf, send  # noqa: E402

conf.verb = 0


def main():
    spec = json.load(sys.stdin)
    timeout = spec.get("timeout", 1.0)
    r4 = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
    r6 = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
    out = []
    for req in spec["requests"]:
        msg = bytes.fromhex(req["msg"])
        if req.get("iface"):
            # scapy finds no route to a link-local address; the kernel does, given the scope
            # (and fills the ICMPv6 checksum).
            r6.sendto(msg, (req["dst"], 0, 0, socket.if_nametoindex(req["iface"])))
        elif req["af"] == 4:
            send(IP(src=req.get("src"), dst=req["dst"], proto=req.get("proto", 1),
                    frag=req.get("frag", 0)) / Raw(msg))
        else:
            send(IPv6(src=req.get("src"), dst=req["dst"], nh=req.get("proto", 58)) / Raw(msg))
        out.append(wait_reply(r4 if req["af"] == 4 else r6, req["af"], req.get("id"),
                              req.get("seq"), timeout))
    json.dump(out, sys.stdout)


def wait_reply(sock, af, ident, seq, timeout):
    deadline = time.time() + timeout
    want = 43 if af == 4 else 161
    while True:
        left = deadline - time.time()
        if left <= 0:
            return None
        ready, _, _ = select.select([sock], [], [], left)
        if not ready:
            return None
        data = sock.recv(65535)
        if af == 4:
            data = data[(data[0] & 0xF) * 4:]
        if len(data) >= 8 and data[0] == want:
            rid = int.from_bytes(data[4:6], "big")
            if (ident is None or rid == ident) and (seq is None or data[6] == seq):
                return data.hex()


if __name__ == "__main__":
    main()
