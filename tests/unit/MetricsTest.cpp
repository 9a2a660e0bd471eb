#include <gtest/gtest.h>

#include <fmt/format.h>

#include <regex>
#include <set>
#include <string>

#include "error/ErrorResponderSchema.h"
#include "host/common/Metrics.h"
#include "probe/ProbeSchema.h"
#include "tests/unit/FakePam.h"

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
   auto pam = make<testing::FakePam>("ipv4 vrf default", AddressFamily::ipv4, 1, "");
   m.pamsIs({pam.get()});
   const std::regex name("ravel_[a-z0-9_]+");
   std::set<std::string> seen;
   for (auto& f : m.families()) {
      EXPECT_TRUE(std::regex_match(f.name, name)) << f.name;
      EXPECT_TRUE(seen.insert(f.name).second) << f.name;
      EXPECT_EQ(f.type == "counter", f.name.ends_with("_total")) << f.name;
      EXPECT_EQ(f.help.find(" counter "), std::string::npos) << f.name << ": " << f.help;
      EXPECT_FALSE(f.samples.empty()) << f.name;
   }
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
   err->kernelErrorFilterFailedInc();
   err->kernelErrorFilterFailedInc();
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
       "\nravel_error_kernel_error_filter_failed_total 2\n",
   };
   for (auto* l : lines)
      EXPECT_NE(t.find(l), std::string::npos) << l << "\nin\n" << t;
   EXPECT_EQ(t.find("_total{family=\"ipv6\""), std::string::npos) << "ipv6 is not loaded";
}

// A PAM whose counters the test sets.
class CountedPam : public testing::FakePam {
 public:
   using FakePam::FakePam;
   void countersIs(const PamCounters& c, int txErrno) {
      counters_ = c;
      txErrno_ = txErrno;
   }
};

TEST(Metrics, PamCountersByVrfAndFamily) {
   auto red6 = make<CountedPam>("ipv6 vrf red", AddressFamily::ipv6, 58, "ns-red");
   auto def4 = make<CountedPam>("ipv4 vrf default", AddressFamily::ipv4, 1, "");
   red6->countersIs({1, 2, 3, 4, 5, 6, 7, 8}, 101);
   def4->countersIs({10, 20, 30, 40, 50, 60, 70, UINT64_MAX}, 0);
   // Both are among the live PAMs; the order handed in does not matter.
   EXPECT_TRUE(IpPam::all().count(red6.get()) && IpPam::all().count(def4.get()));
   Metrics m;
   m.pamsIs({red6.get(), def4.get()});
   std::string t = m.text();
   const std::pair<const char*, const char*> counters[] = {
       {"tx_packets", "1 10"}, {"tx_bytes", "2 20"},
       {"tx_drops", "3 30"},   {"tx_errors", "4 40"},
       {"rx_packets", "5 50"}, {"rx_bytes", "6 60"},
       {"rx_drops", "7 70"},   {"rx_errors", "8 18446744073709551615"},
   };
   for (auto& [name, values] : counters) {
      std::string v(values), red = v.substr(0, v.find(' ')), dflt = v.substr(v.find(' ') + 1);
      std::string want = fmt::format(
          "# TYPE ravel_pam_{0}_total counter\n"
          "ravel_pam_{0}_total{{family=\"ipv4\",vrf=\"default\"}} {1}\n"
          "ravel_pam_{0}_total{{family=\"ipv6\",vrf=\"red\"}} {2}\n",
          name, dflt, red);
      EXPECT_NE(t.find(want), std::string::npos) << want << "\nin\n" << t;
   }
   EXPECT_NE(t.find("# TYPE ravel_pam_last_tx_errno gauge\n"
                    "ravel_pam_last_tx_errno{family=\"ipv4\",vrf=\"default\"} 0\n"
                    "ravel_pam_last_tx_errno{family=\"ipv6\",vrf=\"red\"} 101\n"),
             std::string::npos)
       << t;
   red6.reset();
   EXPECT_EQ(IpPam::all().count(def4.get()), 1u);
   EXPECT_EQ(IpPam::all().size(), 1u) << "a released PAM leaves the list";
}

TEST(Metrics, MissingStatusLeavesFamiliesOut) {
   Metrics m;
   m.probeStatusIs(nullptr);
   m.errorStatusIs(nullptr);
   EXPECT_EQ(m.text(), "");
}

}  // namespace
}  // namespace Ravel::host
