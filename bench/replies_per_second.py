#!/usr/bin/python3
"""Whole-system PROBE throughput: Ravel against the kernel's own responder, same run.

Two twin router namespaces (tests/integration/topo.py) each with a client on a veth pair.
One router runs ravel pinned to CPU 1; the other has net.ipv4.icmp_echo_enable_probe on. RPS
puts each router's receive processing on CPU 1 too. The
load generator (probe_load, C++, sendmmsg) runs in each client pinned to CPU 0 and asks by name
about r0 as fast as it can for SECONDS. Prints both rates and their ratio. Needs root.
"""
import json
import os
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "integration"))

from conftest import Daemon, Namespaces  # noqa: E402
from topo import ROUTER4, build_twins  # noqa: E402

BUILD = ROOT / "build" / "bin"


def load(client, seconds):
    r = client.run("taskset", "-c", "0", BUILD / "probe_load", ROUTER4, "r0", str(seconds),
                   timeout=seconds + 30)
    return json.loads(r.stdout)


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 3.0
    nss = Namespaces()
    work = tempfile.TemporaryDirectory(prefix="ravel-bench-")
    try:
        (rr, rc), (kr, kc) = build_twins(nss, "b")
        # Receive processing of the router side on CPU 1 (with the responder), of the client
        # side on CPU 0 (with the load generator): the responder under test gets one core.
        for router, client in ((rr, rc), (kr, kc)):
            router.run("sh", "-c", "echo 2 > /sys/class/net/r0/queues/rx-0/rps_cpus")
            client.run("sh", "-c", "echo 1 > /sys/class/net/c0/queues/rx-0/rps_cpus")
        wd = Path(work.name)
        (wd / "ravel.yaml").write_text(
            "probe: {enabled: true, ifname: true, max-queue-length: 4096}\n")
        # The ring-file recorder takes every trace point; RAVEL_BENCH_LUMEN=1 keeps it on.
        env = {} if os.environ.get("RAVEL_BENCH_LUMEN") == "1" else {"LUMEN_DISABLE": "1"}
        d = Daemon(rr, wd, config=wd / "ravel.yaml", env=env).start()
        os.sched_setaffinity(d.proc.pid, {1})
        for p in Path(f"/proc/{d.proc.pid}/task").iterdir():
            os.sched_setaffinity(int(p.name), {1})
        ravel = load(rc, seconds)
        kernel = load(kc, seconds)
        d.stop()
        print(json.dumps({"ravel": ravel, "kernel": kernel,
                          "ravel_over_kernel": round(ravel["replies_per_second"] /
                                                     max(kernel["replies_per_second"], 1), 3)},
                         indent=2))
    finally:
        nss.close()
        work.cleanup()


if __name__ == "__main__":
    main()
