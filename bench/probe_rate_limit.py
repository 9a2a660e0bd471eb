#!/usr/bin/python3
"""What a PROBE flood at ten times the configured rate costs, with the rate limit and with only
the queue bound (no limit), on the same traffic. Needs root.

    bench/probe_rate_limit.py [RATE] [SECONDS]

Client — router (the daemon) in namespaces. The client sends requests paced at 10 x RATE
(default 200/s) for SECONDS (default 5) and counts the replies; meanwhile `ravelctl show status`
runs every 0.1 s. Prints, per run, replies a second, the daemon's CPU seconds, and the control
command's median and worst latency.
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "integration"))

import probepkt as P  # noqa: E402
from conftest import RAVELCTL, Daemon, Namespaces  # noqa: E402
from topo import ROUTER4, build_router  # noqa: E402

FLOOD = r"""
import select, socket, sys, time
msg, rate, seconds, dst = bytes.fromhex(sys.argv[1]), float(sys.argv[2]), float(sys.argv[3]), sys.argv[4]
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
s.setblocking(False)
sent = replies = 0
start = time.monotonic()
while (now := time.monotonic()) - start < seconds + 1:
    if now - start < seconds and sent < (now - start) * rate:
        s.sendto(msg, (dst, 0))
        sent += 1
        continue
    if select.select([s], [], [], 0.0005)[0]:
        p = s.recv(2048)
        replies += p[(p[0] & 15) * 4] == 43
print(sent, replies)
"""


def cpu_seconds(pid):
    f = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(f[11]) + int(f[12])) / os.sysconf("SC_CLK_TCK")


def run(rate, seconds, limited):
    nss = Namespaces()
    tmp = Path(tempfile.mkdtemp())
    try:
        router, client = nss.make("rl"), nss.make("rc")
        build_router(nss, router, client)
        cfg = tmp / "ravel.yaml"
        limit = f"{{rate: {rate}, burst: {rate}}}" if limited else "{}"
        cfg.write_text(f"probe: {{enabled: true, ifname: true, rate-limit: {limit}}}\n")
        d = Daemon(router, tmp, config=cfg, env={"LUMEN_DISABLE": "1"}).start()
        msg = P.request(0x2222, 1, True, P.extension(P.intf_object(name="r0")))
        latencies, done = [], threading.Event()

        def poll():
            while not done.is_set():
                t = time.monotonic()
                subprocess.run([str(RAVELCTL), "--socket", str(d.socket), "show", "status"],
                               capture_output=True, check=True)
                latencies.append((time.monotonic() - t) * 1000)
                time.sleep(0.1)
        poller = threading.Thread(target=poll)
        cpu0 = cpu_seconds(d.proc.pid)
        poller.start()
        out = client.run("/usr/bin/python3", "-c", FLOOD, msg.hex(), str(10 * rate), str(seconds),
                         ROUTER4, timeout=seconds + 60).stdout.split()
        done.set()
        poller.join()
        cpu = cpu_seconds(d.proc.pid) - cpu0
        status = d.probe_status()["status"]
        d.stop()
        return {"limited": limited, "sent": int(out[0]), "replies": int(out[1]),
                "repliesPerSecond": round(int(out[1]) / seconds, 1), "daemonCpuSeconds": cpu,
                "rateLimited": status["rateLimited"],
                "showStatusMs": {"median": round(statistics.median(latencies), 1),
                                 "max": round(max(latencies), 1)}}
    finally:
        nss.close()


def main():
    rate = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    seconds = float(sys.argv[2]) if len(sys.argv) > 2 else 5.0
    print(json.dumps({"rate": rate, "offered": 10 * rate, "seconds": seconds,
                      "runs": [run(rate, seconds, True), run(rate, seconds, False)]}, indent=1))


if __name__ == "__main__":
    main()
