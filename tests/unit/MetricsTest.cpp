#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "error/ErrorResponderSchema.h"
#include "host/common/Metrics.h"
#include "probe/ProbeSchema.h"

namespace Ravel::host {
namespace {

TEST(Metrics, SnakeCase) {
   const std::pair<const char*, const char*> cases[] = {
       {"requestsReceived", "requests_received"},
       {"rfc792ErrorSent", "rfc792_error_sent"},
       {"noTxPam", "no_tx_pam"},
       {"ipAddrTTL", "ip_addr_ttl"},
       {"TTLValue", "ttl_value"},
       {"plain", "plain"},
   };
   for (auto& [in, out] : cases)
      EXPECT_EQ(Metrics::snakeCase(in), out) << in;
}

TEST(Metrics, Escaping) {
   EXPECT_EQ(Metrics::escapeLabelValue("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
   EXPECT_EQ(Metrics::escapeHelp("a\"b\\c\nd"), "a\"b\\\\c\\nd");
}

// Names a scraper accepts, no family twice, counters named "_total", and a HELP line written
// for each counter (a counter added to a list without one gets the generic text).
TEST(Metrics, EveryFamilyIsWellFormed) {
   auto probe = make<ProbeResponder::Status>();
   auto err = make<ErrorResponder::Status>();
   err->afStatusIs(AddressFamily::ipv4)->vrfStatusIs(VrfName("red"));
   Metrics m;
   m.probeStatusIs(probe.get());
   m.errorStatusIs(err.get());
   const std::regex name("ravel_[a-z0-9_]+");
   std::set<std::string> seen;
   for (auto& f : m.families()) {
      EXPECT_TRUE(std::regex_match(f.name, name)) << f.name;
      EXPECT_TRUE(seen.insert(f.name).second) << f.name;
      EXPECT_EQ(f.type == "counter", f.name.ends_with("_total")) << f.name;
      EXPECT_EQ(f.help.find(" counter "), std::string::npos) << f.name << ": " << f.help;
      EXPECT_FALSE(f.samples.empty()) << f.name;
   }
   // 16 probe counters + replies + errno; loaded + 7 + 5 + 2 error families.
   EXPECT_EQ(m.families().size(), 18u + 15u);
}

TEST(Metrics, Text) {
   auto probe = make<ProbeResponder::Status>();
   probe->requestsReceivedInc(3);
   probe->codeCountInc(2, 1);
   probe->codeCountInc(7, 4);
   probe->txErrorsInc(UINT64_MAX);
   probe->lastTxErrnoIs(-1);
   auto err = make<ErrorResponder::Status>();
   auto v4 = err->afStatusIs(AddressFamily::ipv4);
   v4->afCounterIs(ErrorResponder::AfCounterId::pktInfoProcessed, 5);
   v4->vrfStatusIs(VrfName("re\"d"))
       ->vrfCounterIs(ErrorResponder::VrfCounterId::extendedErrorSent, 9);
   err->ebpfLoadFailedInc();
   Metrics m;
   m.probeStatusIs(probe.get());
   m.errorStatusIs(err.get());
   std::string t = m.text();
   const char* lines[] = {
       "# HELP ravel_probe_requests_received_total Probe responder: PROBE requests accepted "
       "into the input queue.\n# TYPE ravel_probe_requests_received_total counter\n"
       "ravel_probe_requests_received_total 3\n",
       "\nravel_probe_tx_errors_total 18446744073709551615\n",
       "\nravel_probe_replies_total{code=\"0\"} 0\n",
       "\nravel_probe_replies_total{code=\"2\"} 1\n",
       "\nravel_probe_replies_total{code=\"7\"} 4\n",
       "\nravel_probe_last_tx_errno -1\n",
       "\nravel_error_program_loaded{family=\"ipv4\"} 1\n",
       "\nravel_error_program_loaded{family=\"ipv6\"} 0\n",
       "\nravel_error_pkt_info_processed_total{family=\"ipv4\"} 5\n",
       "\nravel_error_vrf_extended_error_sent_total{family=\"ipv4\",vrf=\"re\\\"d\"} 9\n",
       "\nravel_error_vrf_reply_attempted_total{family=\"ipv4\",vrf=\"re\\\"d\"} 0\n",
       "\nravel_error_ebpf_load_failed_total 1\n",
   };
   for (auto* l : lines)
      EXPECT_NE(t.find(l), std::string::npos) << l << "\nin\n" << t;
   EXPECT_EQ(t.find("_total{family=\"ipv6\""), std::string::npos) << "ipv6 is not loaded";
}

TEST(Metrics, MissingStatusLeavesFamiliesOut) {
   Metrics m;
   m.probeStatusIs(nullptr);
   m.errorStatusIs(nullptr);
   EXPECT_EQ(m.text(), "");
}

}  // namespace
}  // namespace Ravel::host
