// The kernel-program loader against this machine's kernel. Without kprobe support (no kprobe
// PMU) attaching fails: each attempt must be reported and leave nothing behind. With it, the
// programs load, take namespaces and unload cleanly. Needs root.
#include <bpf/bpf.h>
#include <dirent.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>

#include "error/ErrorResponderCounterSm.h"
#include "error/datapath/EbpfIpGenHelper.h"
#include "tests/privileged/Host.h"

namespace Ravel::ErrorResponder {
namespace {

using test::kernelHasKprobes;

size_t openFds() {
   size_t n = 0;
   for ([[maybe_unused]] auto& e : std::filesystem::directory_iterator("/proc/self/fd"))
      ++n;
   return n;
}

// Standard error without the text trace's lines (which start with their time).
std::string ownLines(const std::string& err) {
   std::string out, line;
   for (char c : err) {
      line += c;
      if (c != '\n')
         continue;
      if (!std::isdigit(static_cast<unsigned char>(line[0])))
         out += line;
      line.clear();
   }
   return out;
}

struct Family {
   const char* name;
   AddressFamily af;
   Ptr<EbpfHelperBase> (*factory)();
};
const Family kFamilies[] = {{"ipv4", AddressFamily::ipv4, ebpfIpv4HelperFactory},
                            {"ipv6", AddressFamily::ipv6, ebpfIpv6HelperFactory}};

class EbpfLoader : public ::testing::Test {
 protected:
   void SetUp() override {
      if (::geteuid() != 0)
         GTEST_SKIP() << "needs root";
   }
   Ptr<ErrorResponderStats> stats = make<ErrorResponderStats>();
   Ptr<EbpfHandlerContext> ctx = make<EbpfHandlerContext>(stats);
   Ptr<EbpfConfig> config = make<EbpfConfig>();
};

TEST_F(EbpfLoader, LoadsOrReportsTheAttachFailureAndLeaksNothing) {
   for (const Family& f : kFamilies) {
      SCOPED_TRACE(f.name);
      Ptr<EbpfHelperBase> helper = f.factory();
      // Twice: a failed attempt must leave the next one the same chances.
      for (int attempt = 0; attempt < 2; ++attempt) {
         size_t before = openFds();
         ::testing::internal::CaptureStderr();
         EbpfInitParams p = helper->loadProgram(config, ctx);
         std::string err = ownLines(::testing::internal::GetCapturedStderr());
         if (!kernelHasKprobes()) {
            EXPECT_FALSE(p);
            EXPECT_EQ(err.rfind("IcmpErrResponder: Failed to attach BPF skeleton - err ", 0), 0u)
                << err;
            EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
            EXPECT_EQ(openFds(), before);
            continue;
         }
         ASSERT_TRUE(p) << err;
         EXPECT_GT(p.ringBufFd, 0);
         helper->addToVrfMap(p.nsMapFd, 4026531840u);
         uint64_t key = 4026531840u;
         uint8_t value = 0;
         EXPECT_EQ(bpf_map_lookup_elem(p.nsMapFd, &key, &value), 0);
         EXPECT_EQ(value, 1);
         helper->removeFromVrfMap(p.nsMapFd, key);
         helper->removeFromVrfMap(p.nsMapFd, key);  // absent: nothing to do, nothing said
         EXPECT_NE(bpf_map_lookup_elem(p.nsMapFd, &key, &value), 0);
         EbpfKernelStats k{1, 1};
         EXPECT_TRUE(helper->kernelStats(p, k));
         helper->unloadProgram(p);
         EXPECT_EQ(openFds(), before);
      }
   }
}

// Sizes the kernel refuses stop the load step, whatever the kernel's probes.
TEST_F(EbpfLoader, RingSizesTheKernelRefusesAreReportedAtLoad) {
   struct Case {
      uint32_t ringBufSz;
      const char* stderrStart;  // empty: the size is ignored and the load goes on
   };
   const long page = ::sysconf(_SC_PAGESIZE);
   const Case cases[] = {
       // libbpf rounds a size up to a power-of-two number of pages while it can.
       {0xffffffffu, "IcmpErrResponder: Failed to load EBPF skeleton - err "},
       {static_cast<uint32_t>(3 * page), ""},
       {0, ""},
       {1075, ""},
       {static_cast<uint32_t>(page - 1), ""},
       {1u << 20, ""},
   };
   for (const Family& f : kFamilies) {
      Ptr<EbpfHelperBase> helper = f.factory();
      for (const Case& c : cases) {
         SCOPED_TRACE(::testing::Message() << f.name << " ringBufSz " << c.ringBufSz);
         config->ringBufSz.set(c.ringBufSz);
         size_t before = openFds();
         ::testing::internal::CaptureStderr();
         EbpfInitParams p = helper->loadProgram(config, ctx);
         std::string err = ownLines(::testing::internal::GetCapturedStderr());
         if (*c.stderrStart) {
            EXPECT_FALSE(p);
            EXPECT_EQ(err.rfind(c.stderrStart, 0), 0u) << err;
         } else if (!kernelHasKprobes()) {
            EXPECT_NE(err.find("Failed to attach BPF skeleton"), std::string::npos) << err;
         } else {
            EXPECT_TRUE(p) << err;
            helper->unloadProgram(p);
         }
         EXPECT_EQ(openFds(), before);
      }
   }
}

}  // namespace
}  // namespace Ravel::ErrorResponder
