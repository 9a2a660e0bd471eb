#!/usr/bin/python3
"""Fetches the test VM's kernel and builds its initramfs, both cached outside the tree.

The kernel is Debian's packaged one (the package linux-image-amd64 depends on), downloaded
with apt-get and unpacked with dpkg-deb, never installed. The initramfs holds a static busybox,
tests/vm/init.sh and the modules needed to reach the host's root over 9p; it is rebuilt when
any of those change. Running this twice does nothing the second time.

Run directly, it prepares the cache and prints what the VM runner will use.

Cache: $RAVEL_VM_CACHE, default /var/cache/ravel-vm.
"""
import hashlib
import json
import lzma
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
CACHE = Path(os.environ.get("RAVEL_VM_CACHE", "/var/cache/ravel-vm"))
META_PACKAGE = "linux-image-amd64"
BUSYBOX = Path("/bin/busybox")
INIT = HERE / "init.sh"
# Needed before the root is mounted; everything else loads inside the VM with modprobe.
BOOT_MODULES = ["virtio_pci", "9pnet_virtio", "9p", "overlay"]


class Unavailable(Exception):
    """The VM cannot be prepared on this machine (no package, no tool)."""


def log(msg):
    print(f"ravel-vm: {msg}", file=sys.stderr, flush=True)


def run(*args, **kw):
    return subprocess.run([str(a) for a in args], check=True, capture_output=True, text=True, **kw)


def apt_update():
    log("running apt-get update")
    try:
        run("apt-get", "update", "-qq")
    except (subprocess.CalledProcessError, FileNotFoundError) as e:
        raise Unavailable(f"apt-get update failed: {getattr(e, 'stderr', e)}")


def resolve_package(update=False):
    """(name, version) of the kernel package linux-image-amd64 currently depends on; the apt
    lists are updated first with update, or when they do not know the package."""

    def lookup():
        # The candidate meta package pins its kernel: "Depends: linux-image-X (= V)".
        try:
            show = run("apt-cache", "show", "--no-all-versions", META_PACKAGE).stdout
        except (subprocess.CalledProcessError, FileNotFoundError):
            return None
        for line in show.splitlines():
            if not line.startswith("Depends: "):
                continue
            for dep in line[len("Depends: "):].split(","):
                m = re.fullmatch(r"\s*(linux-image-\S+) \(= (\S+)\)\s*", dep)
                if m:
                    return m.group(1), m.group(2)
        return None

    if update:
        apt_update()
    found = lookup()
    if found is None and not update:
        apt_update()
        found = lookup()
    if found is None:
        raise Unavailable(f"apt cannot resolve the package {META_PACKAGE} depends on")
    return found


def current():
    """The cached kernel last prepared, or None."""
    try:
        return json.loads((CACHE / "current.json").read_text())
    except (OSError, ValueError):
        return None


def fetch_kernel(name, version):
    """Unpacks the package into CACHE/<name>_<version>, depmod'ed; returns that directory."""
    dest = CACHE / f"{name}_{version}"
    if (dest / "kernel.json").exists():
        return dest
    CACHE.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=CACHE, prefix=".fetch-") as tmp:
        log(f"downloading {name} {version}")
        try:
            run("apt-get", "download", f"{name}={version}", cwd=tmp)
        except subprocess.CalledProcessError as e:
            raise Unavailable(f"apt-get download {name}={version} failed: {e.stderr.strip()}")
        deb = next(Path(tmp).glob("*.deb"))
        root = Path(tmp) / "root"
        run("dpkg-deb", "-x", deb, root)
        deb.unlink()
        kvers = [p.name for p in (root / "lib/modules").iterdir()]
        if len(kvers) != 1:
            raise Unavailable(f"{deb.name}: expected one module tree, found {kvers}")
        kver = kvers[0]
        # The package ships no modules.dep: its postinst would have run depmod.
        run("depmod", "-b", root, kver)
        extract_vmlinux(root / "boot" / f"vmlinuz-{kver}", root / "boot" / f"vmlinux-{kver}")
        info = {"package": name, "version": version, "kver": kver}
        (root / "kernel.json").write_text(json.dumps(info) + "\n")
        if dest.exists():
            shutil.rmtree(dest)
        root.rename(dest)
    return dest


def extract_vmlinux(vmlinuz, out):
    """Unpacks the ELF kernel from a bzImage. qemu boots it through its PVH entry point, which
    skips the real-mode setup and the in-guest decompression, seconds under TCG."""
    image = vmlinuz.read_bytes()
    start = image.find(b"\xfd7zXZ\x00")
    if start < 0:
        raise Unavailable(f"{vmlinuz}: no xz payload")
    elf = lzma.LZMADecompressor(format=lzma.FORMAT_XZ).decompress(image[start:])
    if not elf.startswith(b"\x7fELF"):
        raise Unavailable(f"{vmlinuz}: payload is not an ELF image")
    partial = out.with_suffix(f".part{os.getpid()}")
    partial.write_bytes(elf)
    partial.rename(out)


def boot_modules(kdir, kver):
    """The .ko files for BOOT_MODULES, dependencies first, each once."""
    order = []
    for m in BOOT_MODULES:
        out = run("modprobe", "-d", kdir, "-S", kver, "--show-depends", m).stdout
        for line in out.splitlines():
            parts = line.split()
            if parts and parts[0] == "insmod" and parts[1] not in order:
                order.append(parts[1])
    return [Path(p) for p in order]


def build_initramfs(kdir, kver):
    """CACHE/initramfs-<hash>.cpio for this kernel, busybox and init script."""
    if not BUSYBOX.exists():
        raise Unavailable(f"{BUSYBOX} missing: install busybox-static")
    mods = boot_modules(kdir, kver)
    h = hashlib.sha256()
    for p in [BUSYBOX, INIT] + mods:
        h.update(p.name.encode() + b"\0" + p.read_bytes())
    out = CACHE / f"initramfs-{kver}-{h.hexdigest()[:16]}.cpio"
    if out.exists():
        return out
    log(f"building {out.name}")
    with tempfile.TemporaryDirectory(dir=CACHE, prefix=".initramfs-") as tmp:
        t = Path(tmp)
        for d in ("bin", "dev", "proc", "sys", "modules", "newroot", "job"):
            (t / d).mkdir()
        shutil.copy2(BUSYBOX, t / "bin/busybox")
        shutil.copy2(INIT, t / "init")
        (t / "init").chmod(0o755)
        for m in mods:
            shutil.copy2(m, t / "modules" / m.name)
        (t / "modules/order").write_text("".join(m.name + "\n" for m in mods))
        files = sorted(str(p.relative_to(t)) for p in t.rglob("*"))
        # Uncompressed: unpacking gzip under TCG costs more than reading the extra bytes.
        partial = out.with_suffix(f".part{os.getpid()}")
        with open(partial, "wb") as f:
            subprocess.run(["cpio", "-o", "-H", "newc", "--quiet"],
                           input="\n".join(files).encode(), stdout=f, cwd=t, check=True)
        partial.rename(out)
    # Older initramfs builds for this kernel are stale now.
    for old in CACHE.glob(f"initramfs-{kver}-*.cpio"):
        if old != out:
            old.unlink()
    return out


def prepare(refresh=True):
    """Makes sure kernel and initramfs are cached; returns their paths and the kernel version.
    Without refresh, a cached kernel is used as it is, sparing the apt look-up."""
    for tool in ("apt-get", "dpkg-deb", "depmod", "modprobe", "cpio"):
        if shutil.which(tool) is None:
            raise Unavailable(f"{tool} not found")
    cur = current()
    try:
        if not refresh and cur is not None:
            raise Unavailable("not refreshing")
        name, version = resolve_package()
    except Unavailable:
        if cur is None:
            raise
        # Offline with a cached kernel: keep using it.
        name, version = cur["package"], cur["version"]
    try:
        kdir = fetch_kernel(name, version)
    except Unavailable as e:
        # Stale apt lists name a version the archive has replaced.
        log(f"{e}; trying again with fresh apt lists")
        name, version = resolve_package(update=True)
        kdir = fetch_kernel(name, version)
    info = json.loads((kdir / "kernel.json").read_text())
    kver = info["kver"]
    initramfs = build_initramfs(kdir, kver)
    if current() != info:
        (CACHE / "current.json").write_text(json.dumps(info) + "\n")
    return {
        "package": name,
        "version": version,
        "kver": kver,
        "vmlinux": str(kdir / "boot" / f"vmlinux-{kver}"),
        "initramfs": str(initramfs),
        "moddir": str(kdir / "lib/modules" / kver),
    }


def main():
    try:
        info = prepare()
    except Unavailable as e:
        log(f"cannot prepare the VM kernel: {e}")
        return 1
    print(json.dumps(info, indent=1))
    return 0


if __name__ == "__main__":
    sys.exit(main())
