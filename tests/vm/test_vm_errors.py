"""The daemon's extended errors, end to end on a kernel with kprobes: a packet expiring in the
router reaches the client as Ravel's RFC 4884/5837 error, and as the kernel's plain one only
when the kernel's own errors are not suppressed."""
import json
import os
import subprocess
import time
from pathlib import Path

import pytest

pytestmark = pytest.mark.vm

ROOT = Path(__file__).resolve().parents[2]
BIN = Path(os.environ.get("RAVEL_BUILD", ROOT / "build")) / "bin"

# Sends one UDP datagram with TTL 1 towards the server and prints every ICMP error that comes
# back within a second, as hex of the ICMP message.
CLIENT = r"""
import socket, sys, time
icmp = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
udp.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, 1)
udp.sendto(b"x" * 100, (sys.argv[1], 33434))
icmp.settimeout(0.2)
end = time.time() + 1.0
while time.time() < end:
    try:
        pkt = icmp.recv(4096)
    except socket.timeout:
        continue
    ihl = (pkt[0] & 15) * 4
    if pkt[ihl] in (3, 11):
        print(pkt[ihl:].hex())
"""


def interface_objects(msg):
    """RFC 4884 extension objects of an ICMP error (class, c-type, data), or [] without."""
    length = msg[5] * 4
    if not length or len(msg) < 8 + length + 4:
        return []
    ext, objs = msg[8 + length + 4:], []
    while len(ext) >= 4:
        size, cls, ctype = int.from_bytes(ext[:2], "big"), ext[2], ext[3]
        if size < 4:
            break
        objs.append((cls, ctype, ext[4:size]))
        ext = ext[size:]
    return objs


@pytest.mark.parametrize("suppress", [True, False])
def test_udp_traceroute_hop_gets_ravels_extended_error(net, tmp_path, suppress):
    client, server = net.ns("c"), net.ns("s")
    router = net.router(client, "192.0.2", server, "198.51.100")
    cfg = tmp_path / "ravel.yaml"
    cfg.write_text("error-responder:\n  enabled: true\n"
                   f"  suppress-kernel-errors: {str(suppress).lower()}\n"
                   "  vrfs:\n    default: {}\n")
    sock = tmp_path / "ravel.sock"
    (tmp_path / "netns").mkdir()
    log = open(tmp_path / "ravel.log", "w")
    daemon = subprocess.Popen(
        ["ip", "netns", "exec", router.name, str(BIN / "ravel"), "--config", str(cfg),
         "--socket", str(sock), "--netns-dir", str(tmp_path / "netns")],
        stdout=log, stderr=subprocess.STDOUT, env=dict(os.environ, LUMEN_DISABLE="1"))
    try:
        def errors():
            r = router.run(BIN / "ravelctl", "--socket", sock, "show", "errors", "--json",
                           check=False)
            return json.loads(r.stdout) if r.returncode == 0 else None

        deadline = time.time() + 30
        while time.time() < deadline:
            e = errors()
            if e and all(e["families"][f]["loaded"] for f in ("ipv4", "ipv6")):
                break
            time.sleep(0.2)
        else:
            pytest.fail("programs not loaded: " + (tmp_path / "ravel.log").read_text())

        out = client.run("/usr/bin/python3", "-c", CLIENT, "198.51.100.2").stdout.split()
        msgs = [bytes.fromhex(h) for h in out]
        assert all(m[0] == 11 for m in msgs), out
        plain = [m for m in msgs if m[5] == 0]
        extended = [m for m in msgs if m[5] != 0]
        assert len(plain) == (0 if suppress else 1) and len(extended) == 1, out
        objs = interface_objects(extended[0])
        # One Interface Information Object (class 2) with ifIndex, address, name and MTU.
        iio = [o for o in objs if o[0] == 2]
        assert len(iio) == 1, objs
        cls, ctype, data = iio[0]
        assert ctype & 0x0f == 0x0f
        assert b"rl" in data
        print("ravel:", json.dumps(errors()["families"]["ipv4"]))
    finally:
        daemon.terminate()
        daemon.wait(10)
        log.close()
        print((tmp_path / "ravel.log").read_text())
