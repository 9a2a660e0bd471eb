"""Sends batches of PROBE requests from a namespace through nsprobe.py (scapy)."""
import json
import subprocess
from pathlib import Path

HERE = Path(__file__).resolve().parent


def exchange(ns, requests, timeout=1.0):
    """requests: dicts with af, dst, msg (bytes), id, seq; optional src, frag, proto, iface.
    Returns the reply ICMP messages as bytes (None where no reply came)."""
    spec = {"timeout": timeout, "requests": [
        dict(r, msg=r["msg"].hex()) for r in requests]}
    out = subprocess.run(["ip", "netns", "exec", ns.name, "/usr/bin/python3", str(HERE / "nsprobe.py")],
                         input=json.dumps(spec), capture_output=True, text=True, check=True,
                         timeout=60 + timeout * len(requests))
    return [bytes.fromhex(h) if h else None for h in json.loads(out.stdout)]
