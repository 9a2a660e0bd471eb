// ravelctl: the operator's command line for a running ravel daemon.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "host/common/Control.h"
#include "host/common/CtlCommands.h"

namespace {

void usage(FILE* out) {
   std::fprintf(out,
                "usage: ravelctl [--socket PATH] COMMAND\n"
                "commands:\n"
                "  dump [-v]                 the agent's state dump (-v: no list truncation)\n"
                "  clear counters            reset the error responder's counters\n"
                "  show status [--json]      the daemon's status\n"
                "  show config               the configuration in effect\n"
                "  show probe [--json]       probe responder configuration and counters\n"
                "  show errors [--json]      error responder programs, VRFs and counters\n"
                "  metrics                   every counter, Prometheus text format\n"
                "  trace FILE                print a ring-file trace\n"
                "  probe TARGET (--ifname NAME | --ifindex N | --ifaddr ADDR) [--remote]\n"
                "        [-4|-6] [--count N] [--timeout S]   send RFC 8335 PROBE requests\n"
                "  traceroute DEST [-4|-6] [--vrf NAME] [--max-hops N] [--udp|--icmp]\n"
                "        [--queries N] [--timeout S] [--node-id-class N] [--json]\n"
                "                            trace the path to DEST and print, per hop, the\n"
                "                            RFC 5837 interface and node objects of each error\n"
                "  raw CALLBACK [WORDS...]   send a request line as it is\n"
                "\n"
                "traceroute (no daemon needed; root or CAP_NET_RAW): --vrf runs in namespace\n"
                "/run/netns/ns-NAME; --udp (default) probes UDP ports 33434 and up, --icmp sends\n"
                "echo requests; --max-hops 1-255 (30), --queries 1-10 per hop (3), --timeout\n"
                "seconds per hop after its last probe (1, fractions allowed); --node-id-class:\n"
                "class number read as a node identification object (0: none). It stops when\n"
                "DEST answers (port unreachable, echo reply), after a hop that answers only\n"
                "destination unreachable, or at --max-hops; exit 0 when DEST answered, else 1.\n"
                "One block per hop: TTL, address, round-trip times ('*': no answer), meaning,\n"
                "then one indented line per object:\n"
                "   1  10.0.1.1  0.412 ms  0.380 ms  *  time exceeded in transit\n"
                "         incoming interface: name eth1, ifIndex 5, address 10.0.1.1, MTU 1500\n"
                "         node: host router1, address 192.0.2.1\n"
                "         object class 1, c-type 1, 4 bytes: 0001f1ff\n"
                "         extensions could not be read: REASON\n"
                "Names are printed with bytes other than printable ASCII as \\xNN.\n"
                "--json: {destination, address, family, protocol, reached, hops: [{ttl, probes,\n"
                "replies: [{address, rttMs, type, code, meaning, extensions: {interfaces: [{role,\n"
                "ifIndex, address, name, mtu}], node: {address, hostName}, other: [{classNum,\n"
                "cType, hex}], error}}]}]}; fields with nothing to say are left out, and\n"
                "`extensions` only appears for an error that carries them or could not be read.\n");
}

}  // namespace

int main(int argc, char** argv) {
   std::string socketPath = Ravel::host::kDefaultSocket;
   std::vector<std::string> args;
   for (int i = 1; i < argc; ++i) {
      if (std::strcmp(argv[i], "--socket") == 0 && i + 1 < argc) {
         socketPath = argv[++i];
      } else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
         usage(stdout);
         return 0;
      } else {
         args.emplace_back(argv[i]);
      }
   }
   if (args.empty()) {
      usage(stderr);
      return 2;
   }
   try {
      return Ravel::host::runCtlCommand(socketPath, args);
   } catch (const Ravel::host::UsageError& e) {
      std::fprintf(stderr, "ravelctl: %s\n", e.what());
      usage(stderr);
      return 2;
   } catch (const std::exception& e) {
      std::fprintf(stderr, "ravelctl: %s\n", e.what());
      return 1;
   }
}
