"""A flood larger than max-queue-length is dropped and counted; memory stays bounded; the
responder answers normally afterwards."""
import time
from pathlib import Path

import pytest

import probepkt as P
from conftest import Daemon, Namespaces
from probeclient import exchange
from topo import ROUTER4, build_router

pytestmark = pytest.mark.privileged

FLOOD = """
import socket, sys
msg = bytes.fromhex(sys.argv[1])
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
s.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 22)
for _ in range(int(sys.argv[2])):
    try:
        s.sendto(msg, (sys.argv[3], 0))
    except BlockingIOError:
        pass
"""


def rss_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def test_flood_is_dropped_and_counted(tmp_path):
    nss = Namespaces()
    try:
        router, client = nss.make("fr"), nss.make("fc")
        build_router(nss, router, client)
        cfg = tmp_path / "ravel.yaml"
        cfg.write_text("probe: {enabled: true, ifname: true, max-queue-length: 8}\n")
        d = Daemon(router, tmp_path, config=cfg).start()
        msg = P.request(0x1111, 1, True, P.extension(P.intf_object(name="r0")))
        rss_before = rss_kib(d.proc.pid)
        for _ in range(3):
            client.run("/usr/bin/python3", "-c", FLOOD, msg.hex(), "30000", ROUTER4, timeout=120)
        time.sleep(0.5)
        status = d.probe_status()["status"]
        print("flood:", status["requestsReceived"], "accepted,", status["queueTooLong"], "dropped")
        assert status["queueTooLong"] > 0
        # Queues never hold more than the limit (+1), so memory does not follow the flood.
        assert rss_kib(d.proc.pid) - rss_before < 16 * 1024
        [r] = exchange(client, [{"af": 4, "dst": ROUTER4, "msg": msg, "id": 0x1111, "seq": 1}])
        assert r is not None and P.parse_reply(r)["code"] == 0
        d.stop()
    finally:
        nss.close()
