"""RFC 8335 PROBE messages, built and parsed independently of the C++ code."""
import ipaddress
import struct


def checksum(data: bytes) -> int:
    if len(data) % 2:
        data += b"\0"
    s = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while s >> 16:
        s = (s & 0xFFFF) + (s >> 16)
    return ~s & 0xFFFF


def intf_object(name=None, index=None, addr=None, ctype=None, body=None, length=None, cls=3):
    """Interface Identification Object (class 3); body/length/ctype/cls override for faults."""
    if body is None:
        if name is not None:
            raw = name.encode() if isinstance(name, str) else name
            body = raw + b"\0" * (-len(raw) % 4)
            ctype = 1 if ctype is None else ctype
        elif index is not None:
            body = struct.pack("!I", index)
            ctype = 2 if ctype is None else ctype
        else:
            a = ipaddress.ip_address(addr)
            afi = 1 if a.version == 4 else 2
            body = struct.pack("!HBB", afi, len(a.packed), 0) + a.packed
            ctype = 3 if ctype is None else ctype
    if length is None:
        length = 4 + len(body)
    return struct.pack("!HBB", length, cls, ctype) + body


def extension(obj: bytes, version=2, bad_checksum=False) -> bytes:
    hdr = struct.pack("!HH", version << 12, 0)
    csum = checksum(hdr + obj)
    if bad_checksum:
        csum ^= 0x5555
    return struct.pack("!HH", version << 12, csum) + obj


def request(ident, seq, local, ext: bytes, v6=False, icmp_type=None, bad_checksum=False):
    """The ICMP(v6) message from the ICMP header on. IPv4 checksum filled; IPv6 left 0 (the
    sending socket or send6() fills it)."""
    t = icmp_type if icmp_type is not None else (160 if v6 else 42)
    hdr = struct.pack("!BBHHBB", t, 0, 0, ident, seq, 1 if local else 0)
    msg = hdr + ext
    if not v6:
        c = checksum(msg)
        if bad_checksum:
            c ^= 0x1111
        msg = msg[:2] + struct.pack("!H", c) + msg[4:]
    return msg


def icmp6_checksum(src, dst, msg: bytes) -> int:
    pseudo = (ipaddress.IPv6Address(src).packed + ipaddress.IPv6Address(dst).packed +
              struct.pack("!I3xB", len(msg), 58))
    return checksum(pseudo + msg[:2] + b"\0\0" + msg[4:])


def parse_reply(msg: bytes):
    """(type, code, ident, seq, state, A, 4, 6) of an Extended Echo Reply."""
    t, code, _, ident, seq, bits = struct.unpack("!BBHHBB", msg[:8])
    return {"type": t, "code": code, "id": ident, "seq": seq, "state": bits >> 5,
            "A": (bits >> 2) & 1, "4": (bits >> 1) & 1, "6": bits & 1, "byte7": bits}
