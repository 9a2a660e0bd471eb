#!/usr/bin/python3
"""Extended errors against the kernel's own, on the same traffic, inside the test VM (a kernel
with kprobes). Run it there:

    tests/vm/run --timeout 600 -- /usr/bin/python3 bench/error_responder_vm.py [SECONDS] [PACKETS]

Client — router — server; Ravel on the router with suppress-kernel-errors off, so every
TTL-expired packet gets both the kernel's plain error and Ravel's extended one; the kernel's
ICMP rate limits are off. Two runs, captured on the router's incoming interface by dumpcap:
- rate: the client sends TTL-1 UDP packets as fast as it can for SECONDS (default 5); errors
  per second of each kind on the wire and their ratio (Ravel's / the kernel's).
- latency: PACKETS (default 1000) packets paced at 200/s; per packet, the time from its arrival
  to the kernel's error and to Ravel's (median, 99th percentile) and their ratio.
Prints one JSON object, with the daemon's counters after the runs.
"""
import json
import os
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "vm"))
from vmnet import Net  # noqa: E402

BIN = ROOT / "build" / "bin"

SENDER = r"""
import socket, struct, sys, time
dest, seconds, count = sys.argv[1], float(sys.argv[2]), int(sys.argv[3])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.IPPROTO_IP, socket.IP_TTL, 1)
n, start = 0, time.monotonic()
if count:  # paced
    for n in range(count):
        s.sendto(struct.pack("!I", n) + bytes(60), (dest, 33434))
        time.sleep(max(0, start + (n + 1) / 200 - time.monotonic()))
    n = count
else:
    while time.monotonic() - start < seconds:
        s.sendto(struct.pack("!I", n) + bytes(60), (dest, 33434))
        n += 1
print(n, time.monotonic() - start)
"""


def pcap_packets(path):
    """(time, ethernet frame) of a classic pcap file with nanosecond or microsecond stamps."""
    data = Path(path).read_bytes()
    magic = struct.unpack("<I", data[:4])[0]
    scale = 1e-9 if magic == 0xa1b23c4d else 1e-6
    off = 24
    while off + 16 <= len(data):
        sec, frac, caplen, _ = struct.unpack("<IIII", data[off:off + 16])
        yield sec + frac * scale, data[off + 16:off + 16 + caplen]
        off += 16 + caplen


def classify(frame):
    """('probe', seq) for an offending packet arriving, ('kernel'|'ravel', seq) for an error
    quoting one, else None."""
    if len(frame) < 14 + 20 or frame[12:14] != b"\x08\x00":
        return None
    ip = frame[14:]
    ihl = (ip[0] & 15) * 4
    if ip[9] == 17 and len(ip) >= ihl + 12:
        return "probe", struct.unpack("!I", ip[ihl + 8:ihl + 12])[0]
    if ip[9] == 1 and len(ip) >= ihl + 8 + 20:
        icmp = ip[ihl:]
        if icmp[0] != 11:
            return None
        quote = icmp[8:]
        qihl = (quote[0] & 15) * 4
        if len(quote) < qihl + 12:
            return None
        seq = struct.unpack("!I", quote[qihl + 8:qihl + 12])[0]
        return ("ravel" if icmp[5] else "kernel"), seq
    return None


def capture(router, dev, path):
    p = subprocess.Popen(["ip", "netns", "exec", router.name, "dumpcap", "-q", "-n", "-i", dev,
                          "-P", "-B", "64", "-w", path],
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    time.sleep(1.5)
    return p


def stop(p):
    time.sleep(1.0)
    p.terminate()
    p.wait(10)


def pct(values, q):
    v = sorted(values)
    return v[min(len(v) - 1, int(q * len(v)))] if v else None


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 5
    packets = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    net, tmp = Net(), Path(tempfile.mkdtemp())
    daemon = None
    try:
        client, server = net.ns("c"), net.ns("s")
        router = net.router(client, "192.0.2", server, "198.51.100")
        router.sysctl("net.ipv4.icmp_ratelimit", 0)
        router.sysctl("net.ipv4.icmp_msgs_per_sec", 1000000)
        router.sysctl("net.ipv4.icmp_msgs_burst", 1000000)
        cfg = tmp / "ravel.yaml"
        cfg.write_text("error-responder:\n  enabled: true\n  suppress-kernel-errors: false\n"
                       "  ring-buffer-size: 4194304\n  vrfs:\n    default: {}\n")
        sock = tmp / "ravel.sock"
        daemon = subprocess.Popen(
            ["ip", "netns", "exec", router.name, BIN / "ravel", "--config", cfg, "--socket",
             sock, "--netns-dir", tmp], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, LUMEN_DISABLE="1"))

        def errors():
            r = router.run(BIN / "ravelctl", "--socket", sock, "show", "errors", "--json",
                           check=False)
            return json.loads(r.stdout) if r.returncode == 0 else None

        deadline = time.time() + 60
        while not ((e := errors()) and e["families"]["ipv4"]["loaded"]):
            if time.time() > deadline:
                raise SystemExit("programs not loaded")
            time.sleep(0.2)

        out = {"kernel": os.uname().release, "cpus": os.cpu_count()}
        # Rate.
        path = tmp / "rate.pcap"
        cap = capture(router, "rl", path)
        sent, took = client.run("/usr/bin/python3", "-c", SENDER, "198.51.100.2", seconds,
                                0).stdout.split()
        stop(cap)
        kinds = {"probe": [], "kernel": [], "ravel": []}
        for t, f in pcap_packets(path):
            c = classify(f)
            if c:
                kinds[c[0]].append(t)
        span = float(took)
        out["rate"] = {
            "sent": int(sent), "seconds": round(span, 2),
            "probesCaptured": len(kinds["probe"]),
            "kernelErrorsPerSecond": round(len(kinds["kernel"]) / span),
            "ravelErrorsPerSecond": round(len(kinds["ravel"]) / span),
            "ratio": round(len(kinds["ravel"]) / max(1, len(kinds["kernel"])), 3),
        }
        # Latency.
        path = tmp / "latency.pcap"
        cap = capture(router, "rl", path)
        client.run("/usr/bin/python3", "-c", SENDER, "198.51.100.2", 0, packets)
        stop(cap)
        first = {"probe": {}, "kernel": {}, "ravel": {}}
        for t, f in pcap_packets(path):
            c = classify(f)
            if c:
                first[c[0]].setdefault(c[1], t)
        lat = {}
        for k in ("kernel", "ravel"):
            lat[k] = [(first[k][s] - t) * 1e6 for s, t in first["probe"].items() if s in first[k]]
        out["latencyUs"] = {
            k: {"n": len(v), "median": round(statistics.median(v), 1) if v else None,
                "p99": round(pct(v, 0.99), 1) if v else None} for k, v in lat.items()}
        if lat["kernel"] and lat["ravel"]:
            out["latencyUs"]["ratioMedian"] = round(
                statistics.median(lat["ravel"]) / statistics.median(lat["kernel"]), 1)
            out["latencyUs"]["ratioP99"] = round(pct(lat["ravel"], .99) / pct(lat["kernel"], .99), 1)
        out["counters"] = errors()["families"]["ipv4"]
        print(json.dumps(out, indent=1))
    finally:
        if daemon:
            daemon.terminate()
            daemon.wait(10)
        net.close()


if __name__ == "__main__":
    main()
