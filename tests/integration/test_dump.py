"""The agent's command replies through the daemon, byte for byte: `ravelctl dump [-v]`,
`ravelctl clear counters` and `ravelctl raw CALLBACK WORDS...`.

Whole texts are compared after one documented substitution of what legitimately varies from
run to run (see `normalise`); everything else, spacing and blank lines included, must match.
"""
import difflib
import os
import re

import pytest

from conftest import wait_for

pytestmark = pytest.mark.privileged

ENTRY_LIMIT = 100  # the dump context's default list limit


def normalise(text, inodes):
    """Display pointers ("0x55d0c3a1b2c0") become "0xPTR"; the substitute loader's descriptor
    numbers ("nsMapFd=17", "nsMap fd 17") become "<fd>"; each namespace inode named in
    `inodes` ({inode: label}) becomes "<ino:label>". Only whole numbers are replaced."""
    text = re.sub(r"0x[0-9a-f]+", "0xPTR", text)
    text = re.sub(r"(Fd=|fd )[1-9][0-9]*", r"\1<fd>", text)
    for ino, label in inodes.items():
        text = re.sub(rf"(?<![0-9]){ino}(?![0-9])", f"<ino:{label}>", text)
    return text


def ns_inode(path):
    return os.stat(path).st_ino


HEADER = """\
Toggle State:
  Extended Error Responder on non-default VRF: 1

"""


def pam_lines(vrf, fam):
    proto = 1 if fam == "ipv4" else 58
    netns = "default" if vrf == "default" else f"ns-{vrf}"
    return (f"pam {vrf} {fam}\n"
            f"    IpPam enabled 1 protocol {proto} netNs {netns}\n"
            "    tx 0 pkts 0 bytes 0 drops 0 errors errno=0\n"
            "    rx 0 pkts 0 bytes 0 drops 0 errors\n")


def truncating(lines, count, indent, verbose):
    """A dumped list: all `lines` when verbose or within the limit, else the first
    ENTRY_LIMIT between the two truncation lines."""
    if verbose or count <= ENTRY_LIMIT:
        return "".join(lines)
    pad = " " * indent
    return (f"{pad}-- The following list will be truncated, use verbose option to display all "
            f"{count} entries --\n" + "".join(lines[:ENTRY_LIMIT]) +
            f"{pad}-- This list has been truncated, use verbose option to display all {count} "
            f"entries --\n")


def probe_text(keys, verbose=False):
    """The probe responder (not enabled): one input reactor per PAM, the daemon's namespace
    holding only lo."""
    reactors = [f"    input reactor for {v} {fam}\n" for v, fam in keys]
    return ("ProbeResponder\n"
            "  config enabled 0 ifindex 0 ifname 0 ifaddr 0 remote 0\n"
            "  vrfs answering besides default #0\n"
            "  dropped rateLimited 0 notUnicast 0 sourceNotAuthorized 0\n"
            f"  pamInputReactor #{len(keys)}\n" + truncating(reactors, len(keys), 4, verbose) +
            "  intfIdByIfindex #1\n"
            "  intput queue #0\n"
            "  output queue #0\n")


def pams_text(keys, verbose=False):
    return f"pams #{len(keys)}\n" + truncating([pam_lines(*k) for k in keys], len(keys), 0,
                                                 verbose)


DEFAULT_KEYS = [("default", "ipv4"), ("default", "ipv6")]

ROOT_INPUTS = """\
ErrorResponder::RootSm 0xPTR
  mockEbpfEnvironment=1
  allIntfStatusDir=0xPTR
  allIntfStatusLocalDir=0xPTR
  ipStatus=0xPTR
  ip6Status=0xPTR
  allVrfStatusLocal=0xPTR
  aclInput=0xPTR
  aclCli=0xPTR
  pamCollection=0xPTR
  taskScheduler=0xPTR
  statsScheduler=0xPTR
"""

# The error responder with no VRF configured: both program state machines exist, nothing is
# loaded, the substitute loader has been asked for nothing.
ERROR_IDLE = ROOT_INPUTS + """\
  ErrorResponder::EbpfConfig 0xPTR
    ringBufSz=0
    vrfMapSz=0
    entry[] 0
    entryByInode[] 0
  ErrorResponder::Config 0xPTR
    enabled=unset
    addHostName=0
    nodeIdCodePoint=0
    vrfConfig[] 0
  ErrorResponder::Status 0xPTR
    nsInodeConflict=0
    ebpfLoadFailed=0
    kernelErrorFilterFailed=0
    afStatus[] 0
  intfLookupHelper
  errorResponderStats
    pendingSync=0 updateEbpfStats=0 clearEbpfStats=0
    errorResponderAfStats[] 0
  v4EbpfHandlerContext
    stats=0xPTR
    pktInfoInReg=null
    pktInfoProcessYieldStatus=processing
  v6EbpfHandlerContext
    stats=0xPTR
    pktInfoInReg=null
    pktInfoProcessYieldStatus=processing
  v4EbpfHelper
    EbpfTestHelper loads=0 unloads=0
  v6EbpfHelper
    EbpfTestHelper loads=0 unloads=0
  v4EbpfInitStatus
    EbpfInitParams
      skel=null
      ringBuf=null
      ringBufFd=-1
      nsMapFd=0
      statsMapFd=0
  v6EbpfInitStatus
    EbpfInitParams
      skel=null
      ringBuf=null
      ringBufFd=-1
      nsMapFd=0
      statsMapFd=0
  v4EbpfVrfStatus
    enabledInode[] 0
  v6EbpfVrfStatus
    enabledInode[] 0
  configSm
    vrfConfigSm[] 1
      default
        vrfConfig=null
        vrfStatusLocal null
  kernelErrorGuard vrfs=0
  v4EbpfProgSm
    af=ipv4
    ebpfConfig=0xPTR
    ebpfInitStatus=0xPTR
    ebpfVrfStatus=0xPTR
    ebpfHelper=0xPTR
    vrfNameToProgrammedInode[] 0
  v6EbpfProgSm
    af=ipv6
    ebpfConfig=0xPTR
    ebpfInitStatus=0xPTR
    ebpfVrfStatus=0xPTR
    ebpfHelper=0xPTR
    vrfNameToProgrammedInode[] 0
"""

AF_STATS = """\
        ringBufQueued->0
        pktInfoReceived->0
        ringBufDropped->0
        invalidDataSize->0
        insufficientDataLen->0
        nsValidationFailed->0
        pktInfoProcessed->0
        default
          replyAttempted->0
          pamNotFound->0
          rfc792ErrorSent->0
          extendedErrorSent->0
          replySendFailed->0
          leftToKernel->0
"""

# The default VRF enabled: both families' programs loaded through the one substitute loader
# (two loads, each family's namespace map holding the daemon's namespace), and, the
# substitute's descriptors being inert, no ring-buffer state machine.
ERROR_DEFAULT_ENABLED = ROOT_INPUTS + """\
  ErrorResponder::EbpfConfig 0xPTR
    ringBufSz=0
    vrfMapSz=0
    entry[] 1
      default
        nsInode=<ino:default>
    entryByInode[] 1
      <ino:default>->default
  ErrorResponder::Config 0xPTR
    enabled=unset
    addHostName=0
    nodeIdCodePoint=0
    vrfConfig[] 1
      default
        enabled=true
        v4AclName=
        v6AclName=
        nodeIdConfig=ipv4 - ipv6 - interface -
  ErrorResponder::Status 0xPTR
    nsInodeConflict=0
    ebpfLoadFailed=0
    kernelErrorFilterFailed=0
    afStatus[] 2
      ipv4
        afCounter[] 0
        vrfStatus[] 1
          default
            vrfCounter[] 0
      ipv6
        afCounter[] 0
        vrfStatus[] 1
          default
            vrfCounter[] 0
  intfLookupHelper
  errorResponderStats
    pendingSync=0 updateEbpfStats=0 clearEbpfStats=0
    errorResponderAfStats[] 2
      ipv4
""" + AF_STATS + """\
      ipv6
""" + AF_STATS + """\
  v4EbpfHandlerContext
    stats=0xPTR
    pktInfoInReg=null
    pktInfoProcessYieldStatus=processing
  v6EbpfHandlerContext
    stats=0xPTR
    pktInfoInReg=null
    pktInfoProcessYieldStatus=processing
  v4EbpfHelper
    EbpfTestHelper loads=2 unloads=0
    nsMap fd <fd> entries 1
    nsMap fd <fd> entries 1
  v6EbpfHelper
    EbpfTestHelper loads=2 unloads=0
    nsMap fd <fd> entries 1
    nsMap fd <fd> entries 1
  v4EbpfInitStatus
    EbpfInitParams
      skel=null
      ringBuf=null
      ringBufFd=<fd>
      nsMapFd=<fd>
      statsMapFd=<fd>
  v6EbpfInitStatus
    EbpfInitParams
      skel=null
      ringBuf=null
      ringBufFd=<fd>
      nsMapFd=<fd>
      statsMapFd=<fd>
  v4EbpfVrfStatus
    enabledInode[] 1
      <ino:default>
  v6EbpfVrfStatus
    enabledInode[] 1
      <ino:default>
  configSm
    vrfConfigSm[] 1
      default
        vrfConfig=0xPTR
        vrfStatusLocal null
  kernelErrorGuard vrfs=0
  v4EbpfProgSm
    af=ipv4
    ebpfConfig=0xPTR
    ebpfInitStatus=0xPTR
    ebpfVrfStatus=0xPTR
    ebpfHelper=0xPTR
    vrfNameToProgrammedInode[] 1
      default-><ino:default>
  v6EbpfProgSm
    af=ipv6
    ebpfConfig=0xPTR
    ebpfInitStatus=0xPTR
    ebpfVrfStatus=0xPTR
    ebpfHelper=0xPTR
    vrfNameToProgrammedInode[] 1
      default-><ino:default>
"""


def dump_text(keys, verbose, error_section):
    return (HEADER + pams_text(keys, verbose) + "\n" + probe_text(keys, verbose) + "\n" +
            error_section)


def start(namespaces, daemon_factory, workdir, config):
    ns = namespaces.make("h")
    cfg = None
    if config is not None:
        cfg = workdir / "ravel.yaml"
        cfg.write_text(config)
    d = daemon_factory(ns, config=cfg, env={"MOCK_EBPF_HELPER": "1"}).start()
    return d, {ns_inode(ns.path): "default"}


def errors_loaded(d):
    return "ipv4 program loaded" in d.ctl("show", "errors").stdout


@pytest.mark.parametrize("config,ready,error_section", [
    # Before the error responder has anything to do; the probe responder's default PAMs only.
    (None, None, ERROR_IDLE),
    # After it started in the default VRF.
    ("error-responder:\n  vrfs:\n    default:\n      enabled: true\n", errors_loaded,
     ERROR_DEFAULT_ENABLED),
], ids=["idle", "default-enabled"])
def test_dump_whole_text(namespaces, daemon_factory, workdir, config, ready, error_section):
    d, inodes = start(namespaces, daemon_factory, workdir, config)
    if ready:
        assert wait_for(lambda: ready(d), 5), d.output()
    want = dump_text(DEFAULT_KEYS, False, error_section)
    for args in (["dump"], ["dump", "-v"]):  # short lists: verbose changes nothing
        r = d.ctl(*args)
        assert (r.returncode, r.stderr) == (0, "")
        got = normalise(r.stdout, inodes)
        assert got == want, "".join(difflib.unified_diff(want.splitlines(True), got.splitlines(True)))
    # A successful clear writes nothing; the dump is unchanged by it.
    r = d.ctl("clear", "counters")
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    assert normalise(d.ctl("dump").stdout, inodes) == want


# ravelctl ends a reply that lacks one with a newline (a terminal's prompt stays on its own
# line); the callbacks' own replies carry none.
REPLIES = [
    (["raw", "dumpState", "Bogus"], 1, "Unknown command: Bogus\n"),
    (["raw", "dumpState", "DebugAgentState", "x"], 1, "Unknown command: DebugAgentState x\n"),
    (["raw", "dumpState"], 1, "Unknown command: \n"),
    (["raw", "errorResponderClearCounters", "clear"], 1, "Unknown command: clear\n"),
    (["raw", "errorResponderClearCounters", "clear", "counters"], 0, ""),
    (["clear", "counters"], 0, ""),
    (["raw", "noSuchCallback", "x"], 1, "error: no command callback named noSuchCallback\n"),
]


@pytest.mark.parametrize("args,code,reply", REPLIES,
                         ids=["-".join(a) for a, _, _ in REPLIES])
def test_command_replies(namespaces, daemon_factory, workdir, args, code, reply):
    d, _ = start(namespaces, daemon_factory, workdir, None)
    r = d.ctl(*args, check=False)
    assert (r.returncode, r.stdout, r.stderr) == (code, reply, "")


def test_dump_truncates_pams_beyond_the_entry_limit(namespaces, daemon_factory, workdir):
    """51 configured VRFs and the default one: 104 PAMs, each with a probe input reactor.
    Without -v both lists show their first ENTRY_LIMIT entries between the two truncation
    lines; with -v all of them and no such line. The error responder's part is the same in
    both."""
    vrfs = [f"v{i:02d}" for i in range(51)]
    (workdir / "netns").mkdir(exist_ok=True)
    for v in vrfs:
        os.symlink(namespaces.make(v).path, workdir / "netns" / f"ns-{v}")
    config = "error-responder:\n  enabled: false\n  vrfs:\n" + "".join(
        f"    {v}: {{}}\n" for v in vrfs)
    d, inodes = start(namespaces, daemon_factory, workdir, config)
    keys = DEFAULT_KEYS + [(v, fam) for v in vrfs for fam in ("ipv4", "ipv6")]
    count = len(keys)
    assert count > ENTRY_LIMIT
    assert wait_for(lambda: f"pams #{count}\n" in d.ctl("dump").stdout, 10), d.output()

    rests = {}
    for args, verbose in ((["dump"], False), (["dump", "-v"], True)):
        r = d.ctl(*args)
        assert (r.returncode, r.stderr) == (0, "")
        text = normalise(r.stdout, inodes)
        head = HEADER + pams_text(keys, verbose) + "\n" + probe_text(keys, verbose) + "\n"
        assert text[:len(head)] == head, "".join(
            difflib.unified_diff(head.splitlines(True), text[:len(head)].splitlines(True)))
        rests[verbose] = text[len(head):]
    assert rests[False] == rests[True]
    # The error responder, globally off: every VRF's configuration listed (each one asks for
    # PAMs all the same), none tracked.
    vrf_config = "".join(f"      {v}\n        enabled=unset\n        v4AclName=\n"
                         "        v6AclName=\n        nodeIdConfig=ipv4 - ipv6 - interface -\n"
                         for v in vrfs)
    want = ERROR_IDLE.replace(
        "    enabled=unset\n    addHostName=0\n    nodeIdCodePoint=0\n    vrfConfig[] 0\n",
        "    enabled=false\n    addHostName=0\n    nodeIdCodePoint=0\n"
        f"    vrfConfig[] {len(vrfs)}\n" + vrf_config).replace(
        "    vrfConfigSm[] 1\n      default\n        vrfConfig=null\n        vrfStatusLocal null\n",
        "    vrfConfigSm[] 0\n")
    assert rests[False] == want, "".join(
        difflib.unified_diff(want.splitlines(True), rests[False].splitlines(True)))
