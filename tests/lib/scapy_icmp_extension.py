"""RFC 4884/5837 extension objects built with scapy, independently of Ravel's codec, for the
scripts that make golden vectors and for the test hop that answers with extended errors.

scapy needs three corrections: its extension header checksum covers only its own 4 bytes where
RFC 4884 section 7 sums the whole structure; stacked objects count the objects after them in
their length (so objects are built one by one); and an address sub-object without an explicit
AFI is dropped.
"""
import struct

from scapy.contrib.icmp_extensions import ICMPExtensionHeader, ICMPExtensionInterfaceInformation
from scapy.utils import checksum


def name_fields(name):
    """RFC 5837 name sub-object: at most 63 bytes of name, length octet counting itself and
    the NUL padding to a 4-byte end."""
    name = (name.encode() if isinstance(name, str) else name)[:63]
    length = (1 + len(name) + 3) & ~3
    return dict(has_ifname=1, ifname_len=length, ifname=name + b"\0" * (length - 1 - len(name)))


def addr_fields(addr):
    if addr is None:
        return {}
    if ":" in addr:
        return dict(has_ipaddr=1, afi=2, ip6=addr)
    return dict(has_ipaddr=1, afi=1, ip4=addr)


def node_object(classnum, addr, name):
    return bytes(ICMPExtensionInterfaceInformation(classnum=classnum, **addr_fields(addr),
                                                   **name_fields(name)))


def structure(objs, bad_checksum=False):
    """The extension structure: header with the RFC 4884 checksum over it and `objs` (bytes);
    bad_checksum flips bits of it."""
    extn = bytearray(bytes(ICMPExtensionHeader(chksum=0)) + objs)
    extn[2:4] = struct.pack("!H", checksum(bytes(extn)) ^ (0x0101 if bad_checksum else 0))
    return bytes(extn)
