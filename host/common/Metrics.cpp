#include "host/common/Metrics.h"

#include <algorithm>
#include <cctype>
#include <map>

#include <fmt/format.h>

#include "error/ErrorResponderSchema.h"
#include "platform/linux/IpPam.h"
#include "platform/values/Values.h"
#include "probe/ProbeSchema.h"

namespace Ravel::host {

namespace {

// What each counter counts, for the HELP lines. Keyed by the counter's own name so that the
// lists of counters stay where they are defined; a name missing here gets a generic line.
const std::map<std::string_view, std::string_view> kHelp = {
    {"requestsReceived", "PROBE requests accepted into the input queue."},
    {"queueTooLong", "Received packets dropped because a queue was over max-queue-length."},
    {"rateLimited", "Requests dropped over the configured rate, for all sources or their own."},
    {"notUnicast", "Requests to a broadcast or multicast address, dropped."},
    {"sourceNotAuthorized", "Requests whose source the type's ACL does not permit, dropped."},
    {"pktTooShort", "Requests that ended before a header or object they announce."},
    {"unknownAf", "Requests of neither IPv4 nor IPv6."},
    {"incorrectIcmpType", "Packets that were not Extended Echo Requests."},
    {"incorrectIcmpChecksum", "Requests whose ICMP or ICMPv6 checksum did not verify."},
    {"badExtensionHeader", "Requests whose extension header version was not 2."},
    {"incorrectExtensionChecksum", "Requests whose extension checksum did not verify."},
    {"badExtensionObject", "Requests with a malformed Interface Identification Object."},
    {"requestTypeNotAllowed", "Requests refused by the configured policy."},
    {"remoteRequestMalformed", "Remote (L=0) requests that did not name an address."},
    {"interfaceLookupFailed", "Local requests whose interface could not be determined."},
    {"wrongVrfRequested", "Local requests naming an interface of another VRF."},
    {"responsesSent", "Extended Echo Replies sent."},
    {"noTxPam", "Replies not sent because the VRF had no socket for the family."},
    {"txErrors", "Replies whose send failed."},
    {"ringBufQueued", "Records the kernel program queued into its ring buffer."},
    {"pktInfoReceived", "Records taken out of the ring buffer."},
    {"ringBufDropped", "Records the kernel program could not queue (ring buffer full)."},
    {"invalidDataSize", "Records rejected for an invalid size."},
    {"insufficientDataLen", "Records rejected for an insufficient data length."},
    {"nsValidationFailed", "Records whose network namespace is no longer enabled."},
    {"pktInfoProcessed", "Records that went on to the reply path."},
    {"replyAttempted", "ICMP errors the responder tried to send."},
    {"pamNotFound", "ICMP errors not sent because the VRF had no socket for the family."},
    {"rfc792ErrorSent", "ICMP errors sent without extensions."},
    {"extendedErrorSent", "ICMP errors sent with RFC 4884/5837 extensions."},
    {"replySendFailed", "ICMP errors whose send failed."},
    {"leftToKernel",
     "ICMP errors left to the kernel (a source address the agent cannot send from)."},
};

// The PAM counters, in the order the dump prints them.
struct PamCounterMetric {
   const char* name;
   uint64_t PamCounters::*field;
   const char* help;
};
constexpr PamCounterMetric kPamCounters[] = {
    {"tx_packets", &PamCounters::txPkts, "packets sent"},
    {"tx_bytes", &PamCounters::txBytes, "bytes sent"},
    {"tx_drops", &PamCounters::txDrops, "packets not sent because the socket was disabled"},
    {"tx_errors", &PamCounters::txErrors, "sends that failed"},
    {"rx_packets", &PamCounters::rxPkts, "packets received"},
    {"rx_bytes", &PamCounters::rxBytes, "bytes received"},
    {"rx_drops", &PamCounters::rxDrops, "received packets dropped because nobody was reading"},
    {"rx_errors", &PamCounters::rxErrors, "receives that failed"},
};

// A PAM's VRF from its namespace name: "" is the agent's own (the default VRF), "ns-<vrf>"
// any other.
std::string pamVrf(const IpPam& pam) {
   const std::string& ns = pam.netNs();
   if (ns.empty())
      return "default";
   return ns.starts_with("ns-") ? ns.substr(3) : ns;
}

std::string help(std::string_view counter, std::string_view who) {
   auto it = kHelp.find(counter);
   if (it != kHelp.end())
      return fmt::format("{}: {}", who, it->second);
   return fmt::format("{} counter {}.", who, counter);
}

}  // namespace

std::string Metrics::snakeCase(std::string_view camel) {
   std::string out;
   for (size_t i = 0; i < camel.size(); ++i) {
      char c = camel[i];
      if (std::isupper(static_cast<unsigned char>(c))) {
         // An acronym stays one word: "ipAddrTTL" -> "ip_addr_ttl".
         bool prevLower = i > 0 && !std::isupper(static_cast<unsigned char>(camel[i - 1]));
         bool nextLower =
             i + 1 < camel.size() && std::islower(static_cast<unsigned char>(camel[i + 1]));
         bool prevUpper = i > 0 && std::isupper(static_cast<unsigned char>(camel[i - 1]));
         if (i > 0 && (prevLower || (prevUpper && nextLower)))
            out += '_';
         out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      } else {
         out += c;
      }
   }
   return out;
}

std::string Metrics::escapeLabelValue(std::string_view v) {
   std::string out;
   for (char c : v) {
      if (c == '\\' || c == '"')
         out += '\\';
      if (c == '\n') {
         out += "\\n";
         continue;
      }
      out += c;
   }
   return out;
}

std::string Metrics::escapeHelp(std::string_view v) {
   std::string out;
   for (char c : v) {
      if (c == '\\')
         out += "\\\\";
      else if (c == '\n')
         out += "\\n";
      else
         out += c;
   }
   return out;
}

Metrics::Family& Metrics::family(const std::string& name, const char* type, std::string help) {
   for (auto& f : families_) {
      if (f.name == name)
         return f;
   }
   families_.push_back({name, type, std::move(help), {}});
   return families_.back();
}

void Metrics::probeStatusIs(const ProbeResponder::Status* s) {
   if (!s)
      return;
   const std::string who = "Probe responder";
#define RAVEL_PROBE_COUNTER_METRIC(name)                                             \
   family("ravel_probe_" + snakeCase(#name) + "_total", "counter", help(#name, who)) \
       .samples.push_back({{}, std::to_string(s->name)});
   RAVEL_PROBE_COUNTERS(RAVEL_PROBE_COUNTER_METRIC)
#undef RAVEL_PROBE_COUNTER_METRIC
   // RFC 8335 section 3 reply codes 0-4 are always present, so that a rate over them exists
   // before the first reply of each kind.
   auto& replies = family("ravel_probe_replies_total", "counter",
                          "Probe responder: Extended Echo Replies built, by reply code.");
   std::map<unsigned, uint64_t> codes = {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}};
   for (auto& [code, n] : s->codeCount)
      codes[code] = n;
   for (auto& [code, n] : codes)
      replies.samples.push_back({{{"code", std::to_string(code)}}, std::to_string(n)});
   family("ravel_probe_last_tx_errno", "gauge",
          "Probe responder: errno of the last failed reply send (0: none).")
       .samples.push_back({{}, std::to_string(s->lastTxErrno)});
}

void Metrics::errorStatusIs(const ErrorResponder::Status* s) {
   using namespace ErrorResponder;
   if (!s)
      return;
   const std::string who = "Error responder";
   auto& loaded = family("ravel_error_program_loaded", "gauge",
                         "Error responder: 1 while the family's kernel program is loaded.");
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      auto a = s->afStatus.get(af);
      loaded.samples.push_back({{{"family", toString(af)}}, a ? "1" : "0"});
   }
   // Families and names come before samples so the HELP/TYPE lines exist with no program
   // loaded; samples are added per loaded family.
   for (size_t i = 0; i < kAfCounterCount; ++i) {
      std::string name = toString(static_cast<AfCounterId>(i));
      family("ravel_error_" + snakeCase(name) + "_total", "counter", help(name, who));
   }
   for (size_t i = 0; i < kVrfCounterCount; ++i) {
      std::string name = toString(static_cast<VrfCounterId>(i));
      family("ravel_error_vrf_" + snakeCase(name) + "_total", "counter", help(name, who));
   }
   for (AddressFamily af : {AddressFamily::ipv4, AddressFamily::ipv6}) {
      auto a = s->afStatus.get(af);
      if (!a)
         continue;
      std::string afName = toString(af);
      for (size_t i = 0; i < kAfCounterCount; ++i) {
         auto id = static_cast<AfCounterId>(i);
         family("ravel_error_" + snakeCase(toString(id)) + "_total", "counter", "")
             .samples.push_back({{{"family", afName}}, std::to_string(a->counter(id))});
      }
      for (auto& [vrf, v] : a->vrfStatus) {
         for (size_t i = 0; i < kVrfCounterCount; ++i) {
            auto id = static_cast<VrfCounterId>(i);
            family("ravel_error_vrf_" + snakeCase(toString(id)) + "_total", "counter", "")
                .samples.push_back(
                    {{{"family", afName}, {"vrf", vrf.str()}}, std::to_string(v->counter(id))});
         }
      }
   }
   family("ravel_error_ns_inode_conflict_total", "counter",
          "Error responder: VRFs refused because another enabled VRF has their namespace.")
       .samples.push_back({{}, std::to_string(s->nsInodeConflict)});
   family("ravel_error_ebpf_load_failed_total", "counter",
          "Error responder: kernel program loads that failed.")
       .samples.push_back({{}, std::to_string(s->ebpfLoadFailed)});
   family("ravel_error_kernel_error_filter_failed_total", "counter",
          "Error responder: installs of the nftables filter of the kernel's own errors that "
          "failed.")
       .samples.push_back({{}, std::to_string(s->kernelErrorFilterFailed)});
}

void Metrics::pamsIs(const std::vector<const IpPam*>& pams) {
   std::vector<std::pair<std::pair<std::string, std::string>, const IpPam*>> sorted;
   for (const IpPam* p : pams)
      sorted.push_back({{pamVrf(*p), toString(p->af())}, p});
   std::sort(sorted.begin(), sorted.end(),
             [](const auto& a, const auto& b) { return a.first < b.first; });
   for (auto& c : kPamCounters) {
      auto& f = family(fmt::format("ravel_pam_{}_total", c.name), "counter",
                       fmt::format("Packet socket of a VRF and family: {}.", c.help));
      for (auto& [key, p] : sorted)
         f.samples.push_back({{{"family", key.second}, {"vrf", key.first}},
                              std::to_string(p->counters().*c.field)});
   }
   auto& errnoFamily = family("ravel_pam_last_tx_errno", "gauge",
                              "Packet socket of a VRF and family: errno of the last send (0: "
                              "none).");
   for (auto& [key, p] : sorted)
      errnoFamily.samples.push_back(
          {{{"family", key.second}, {"vrf", key.first}}, std::to_string(p->txErrno())});
}

std::string Metrics::text() const {
   std::string out;
   for (auto& f : families_) {
      out +=
          fmt::format("# HELP {} {}\n# TYPE {} {}\n", f.name, escapeHelp(f.help), f.name, f.type);
      for (auto& s : f.samples) {
         std::string labels;
         for (auto& [k, v] : s.labels)
            labels += fmt::format("{}{}=\"{}\"", labels.empty() ? "" : ",", k, escapeLabelValue(v));
         if (!labels.empty())
            labels = "{" + labels + "}";
         out += fmt::format("{}{} {}\n", f.name, labels, s.value);
      }
   }
   return out;
}

}  // namespace Ravel::host
