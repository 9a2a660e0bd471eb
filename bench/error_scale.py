#!/usr/bin/python3
"""Error responder control at scale: N VRFs (default 1000), each with its namespace, enabled in
one configuration file, with the substitute kernel-program loader (MOCK_EBPF_HELPER), or with
the kernel programs themselves (--kernel; in the VM, where they attach).

Measures the time from daemon start until all 2N+2 PAMs are open and all N namespaces are
programmed in both families (with --kernel: until the kernel's errors are dropped in every VRF,
each with its nftables table), the daemon's RSS and descriptor count then, and the time and RSS
to remove them all again and to put them back, over ROUNDS rounds (default 10): the RSS after
each removal must not grow. Needs root. Prints one JSON object.

    bench/error_scale.py [N] [ROUNDS] [--kernel]
    tests/vm/run --timeout 900 -- /usr/bin/python3 bench/error_scale.py 1000 3 --kernel
"""
import ctypes
import json
import os
import re
import resource
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "tests" / "integration"))

from conftest import RAVELCTL, Daemon, Namespaces, sh  # noqa: E402

MS_BIND = 4096
libc = ctypes.CDLL("libc.so.6", use_errno=True)


def bind(src, dst):
    Path(dst).touch()
    if libc.mount(str(src).encode(), str(dst).encode(), None, MS_BIND, None) != 0:
        raise OSError(ctypes.get_errno(), f"mount --bind {src} {dst}")


def umount(path):
    libc.umount2(str(path).encode(), 2)  # MNT_DETACH


def ctl(d, *args):
    return subprocess.run([str(RAVELCTL), "--socket", str(d.socket), *args], capture_output=True,
                          text=True, check=True).stdout


def pams(d):
    m = re.search(r"^pams #(\d+)", ctl(d, "dump"), re.M)
    return int(m.group(1)) if m else -1


def programmed(d):
    f = json.loads(ctl(d, "show", "errors", "--json"))["families"]
    return min(len(f[af]["vrfs"]) if f[af]["loaded"] else 0 for af in ("ipv4", "ipv6"))


def suppressed(d):
    f = json.loads(ctl(d, "show", "errors", "--json"))["families"]
    return min(sum(v.get("kernelErrorsDropped", False) for v in f[af]["vrfs"].values())
               for af in ("ipv4", "ipv6"))


def loaded(d):
    f = json.loads(ctl(d, "show", "errors", "--json"))["families"]
    return f["ipv4"]["loaded"] or f["ipv6"]["loaded"]


def wait(pred, timeout=120):
    t0 = time.monotonic()
    while not pred():
        if time.monotonic() - t0 > timeout:
            raise TimeoutError("condition not reached")
        time.sleep(0.02)
    return time.monotonic()


def rss_kib(pid):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return -1


def fds(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def config(n, enabled):
    if not enabled:
        return "error-responder:\n  vrfs: {}\n"
    return f"error-responder:\n  vrf-map-size: {max(n, 100)}\n  vrfs:\n" + "".join(
        f"    v{i}: {{enabled: true}}\n" for i in range(n))


def main():
    # Five descriptors a VRF (two PAMs, two netlink sockets, the kernel error filter's): as the
    # unit file does, give the daemon room for them.
    try:
        resource.setrlimit(resource.RLIMIT_NOFILE, (65536, 65536))
    except (ValueError, OSError):  # a container may cap the hard limit: use what it allows
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    kernel = "--kernel" in sys.argv
    args = [a for a in sys.argv[1:] if a != "--kernel"]
    n = int(args[0]) if args else 1000
    rounds = int(args[1]) if len(args) > 1 else 10
    # With the kernel programs, all is in place once every VRF's kernel errors are dropped.
    ready = (lambda d: suppressed(d) == n) if kernel else (lambda d: programmed(d) == n)
    tag = f"rvb{os.getpid() % 100000}"
    spaces = Namespaces()
    work = Path(tempfile.mkdtemp(prefix="ravel-bench-"))
    netns_dir = work / "netns"
    netns_dir.mkdir()
    made = []
    try:
        home = spaces.make("h")
        # One `ip -batch` makes the namespaces; they appear to the daemon under its own names.
        batch = work / "batch"
        batch.write_text("".join(f"netns add {tag}-{i}\n" for i in range(n)))
        sh("ip", "-batch", batch)
        made = [f"{tag}-{i}" for i in range(n)]
        for i in range(n):
            bind(f"/run/netns/{tag}-{i}", netns_dir / f"ns-v{i}")
        cfg = work / "ravel.yaml"
        cfg.write_text(config(n, True))
        env = {"LUMEN_DISABLE": "1"} if kernel else {"MOCK_EBPF_HELPER": "1", "LUMEN_DISABLE": "1"}
        d = Daemon(home, work, config=cfg, netns_dir=netns_dir, env=env)
        t0 = time.monotonic()
        d.start(timeout=60)
        t_ready = time.monotonic()
        try:
            t_pams = wait(lambda: pams(d) == 2 * n + 2)
        except (TimeoutError, subprocess.CalledProcessError):
            print(d.output()[-3000:], file=sys.stderr)
            raise
        t_prog = wait(lambda: ready(d))
        pid = d.proc.pid
        out = {
            "vrfs": n,
            "loader": "kernel" if kernel else "substitute",
            "startToReadySeconds": round(t_ready - t0, 3),
            "startToAllPamsSeconds": round(t_pams - t0, 3),
            "startToAllProgrammedSeconds": round(t_prog - t0, 3),
            "rssMiB": round(rss_kib(pid) / 1024, 1),
            "fds": fds(pid),
            "rounds": [],
        }
        for r in range(rounds):
            cfg.write_text(config(n, False))
            t1 = time.monotonic()
            d.proc.send_signal(signal.SIGHUP)
            wait(lambda: not loaded(d) and pams(d) == 2)
            t_removed = time.monotonic()
            rss_removed = rss_kib(pid)
            fds_removed = fds(pid)
            cfg.write_text(config(n, True))
            t2 = time.monotonic()
            d.proc.send_signal(signal.SIGHUP)
            wait(lambda: ready(d) and pams(d) == 2 * n + 2)
            t_added = time.monotonic()
            out["rounds"].append({
                "removeSeconds": round(t_removed - t1, 3),
                "rssAfterRemoveMiB": round(rss_removed / 1024, 1),
                "fdsAfterRemove": fds_removed,
                "addSeconds": round(t_added - t2, 3),
                "rssAfterAddMiB": round(rss_kib(pid) / 1024, 1),
            })
        d.stop()
        print(json.dumps(out, indent=2))
    finally:
        for i in range(len(made)):
            umount(netns_dir / f"ns-v{i}")
        if made:
            batch = work / "batch-del"
            batch.write_text("".join(f"netns del {name}\n" for name in made))
            sh("ip", "-batch", batch, check=False)
        spaces.close()
        subprocess.run(["rm", "-rf", str(work)], check=False)


if __name__ == "__main__":
    main()
