#!/usr/bin/python3
"""Errors a flooding sender receives with Ravel and without, under the kernel's default ICMP rate
limits, inside the test VM (a kernel with kprobes). Run it there:

    tests/vm/run --timeout 600 -- /usr/bin/python3 bench/error_rate_parity_vm.py [SECONDS]

Client — router — server. For each family the client sends TTL-1 UDP datagrams as fast as it can
for SECONDS (default 5) and counts the time-exceeded errors that come back: once with no daemon
(the kernel's own errors), once with Ravel on the router and suppress-kernel-errors on (Ravel's
extended errors replace the kernel's). Then, with Ravel on, a local flood to closed ports of the
router's loopback, which the kernel does not rate-limit: the kernel programs must record none of
it. Prints one JSON object: errors received per run, their ratio, and Ravel's counters.
"""
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "vm"))
from vmnet import Net  # noqa: E402

BIN = ROOT / "build" / "bin"

FLOOD = r"""
import select, socket, sys, time
dest, seconds = sys.argv[1], float(sys.argv[2])
six = ":" in dest
af = socket.AF_INET6 if six else socket.AF_INET
rx = socket.socket(af, socket.SOCK_RAW, socket.IPPROTO_ICMPV6 if six else socket.IPPROTO_ICMP)
rx.setblocking(False)
tx = socket.socket(af, socket.SOCK_DGRAM)
tx.setsockopt(socket.IPPROTO_IPV6 if six else socket.IPPROTO_IP,
              socket.IPV6_UNICAST_HOPS if six else socket.IP_TTL, 1)
exceeded = 3 if six else 11
sent = got = 0
end = time.monotonic() + seconds
def drain():
    global got
    while True:
        try:
            p = rx.recv(2048)
        except BlockingIOError:
            return
        icmp = p if six else p[(p[0] & 15) * 4:]
        got += icmp[0] == exceeded
while time.monotonic() < end:
    tx.sendto(bytes(32), (dest, 33434))
    sent += 1
    if sent % 64 == 0:
        drain()
time.sleep(1)
drain()
print(sent, got)
"""


def flood(ns, dest, seconds):
    out = ns.run("/usr/bin/python3", "-c", FLOOD, dest, str(seconds)).stdout.split()
    return {"sent": int(out[0]), "errors": int(out[1])}


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 5.0
    net = Net()
    tmp = Path(tempfile.mkdtemp())
    try:
        c, s = net.ns("c"), net.ns("s")
        r = net.router(c, "192.0.2", s, "198.51.100", v6=("2001:db8:1::", "2001:db8:2::"))
        dests = {"ipv4": "198.51.100.2", "ipv6": "2001:db8:2::2"}
        result = {"seconds": seconds, "kernel": {}, "ravel": {}}
        for fam, dest in dests.items():
            result["kernel"][fam] = flood(c, dest, seconds)
        cfg = tmp / "ravel.yaml"
        cfg.write_text("error-responder:\n  vrfs:\n    default: {enabled: true}\n")
        sock = tmp / "ravel.sock"
        daemon = subprocess.Popen(
            ["ip", "netns", "exec", r.name, BIN / "ravel", "--config", cfg, "--socket", sock],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, LUMEN_DISABLE="1"))

        def errors():
            p = r.run(BIN / "ravelctl", "--socket", sock, "show", "errors", "--json",
                      check=False)
            return json.loads(p.stdout) if p.returncode == 0 else None
        deadline = time.time() + 60
        while time.time() < deadline:
            e = errors()
            if e and all(f["vrfs"].get("default", {}).get("kernelErrorsDropped")
                         for f in e["families"].values()):
                break
            time.sleep(0.2)
        else:
            raise SystemExit("Ravel did not take over the default VRF's errors")
        for fam, dest in dests.items():
            result["ravel"][fam] = flood(c, dest, seconds)
            result[f"ratio_{fam}"] = round(result["ravel"][fam]["errors"]
                                           / max(1, result["kernel"][fam]["errors"]), 3)
        before = errors()
        r.run("/usr/bin/python3", "-c",
              "import socket,time\n"
              "end=time.monotonic()+2;n=0\n"
              "u=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
              "while time.monotonic()<end: u.sendto(b'x',('127.0.0.1',9)); n+=1\n")
        time.sleep(1.5)
        after = errors()
        result["loopback_records"] = {
            fam: after["families"][fam]["counters"]["ringBufQueued"]
            - before["families"][fam]["counters"]["ringBufQueued"] for fam in dests}
        result["counters"] = after
        daemon.terminate()
        daemon.wait(10)
        print(json.dumps(result, indent=1))
    finally:
        net.close()


if __name__ == "__main__":
    main()
