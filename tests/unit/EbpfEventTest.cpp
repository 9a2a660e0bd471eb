// The ring-buffer callbacks: which records reach the processor and what each one counts.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "bpf/IcmpPktInfo.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/datapath/EBPFIcmpPacketInfo.h"
#include "error/datapath/EbpfIpGenHelper.h"

namespace Ravel::ErrorResponder {
namespace {

struct Harness {
   Ptr<ErrorResponderStats> stats = make<ErrorResponderStats>();
   Ptr<EbpfHandlerContext> ctx = make<EbpfHandlerContext>(stats);
   std::vector<uint32_t> seen;  // ifIndex of each record the processor saw
   Subscription sub = ctx->subscribePktInfoInReg([this] {
      auto* r = ctx->pktInfoInReg();
      ASSERT_NE(r, nullptr);
      seen.push_back(r->ifIndex());
      EXPECT_EQ(static_cast<const packet_info*>(r->data())->ifindex, r->ifIndex());
   });
   Harness() {
      stats->errorResponderAfStatsIs(AddressFamily::ipv4);
      stats->errorResponderAfStatsIs(AddressFamily::ipv6);
   }
   uint64_t counter(AddressFamily af, AfCounterId id) {
      return stats->errorResponderAfStats(af)->counter(id);
   }
};

TEST(EbpfEvent, SizeAndDatalenDecideWhatIsProcessed) {
   struct Case {
      AddressFamily af;
      size_t size;
      uint32_t datalen;
      int result;
      AfCounterId counted;
   };
   constexpr size_t kSize = sizeof(packet_info);
   const Case cases[] = {
       {AddressFamily::ipv4, kSize - 1, 100, 1, AfCounterId::invalidDataSize},
       {AddressFamily::ipv4, 0, 100, 1, AfCounterId::invalidDataSize},
       {AddressFamily::ipv4, kSize, 1025, 1, AfCounterId::invalidDataSize},
       {AddressFamily::ipv4, kSize, 19, 1, AfCounterId::insufficientDataLen},
       {AddressFamily::ipv4, kSize, 0, 1, AfCounterId::insufficientDataLen},
       {AddressFamily::ipv4, kSize, 20, 0, AfCounterId::pktInfoReceived},
       {AddressFamily::ipv4, kSize, 1024, 0, AfCounterId::pktInfoReceived},
       {AddressFamily::ipv6, kSize - 1, 100, 1, AfCounterId::invalidDataSize},
       {AddressFamily::ipv6, kSize, 39, 1, AfCounterId::insufficientDataLen},
       {AddressFamily::ipv6, kSize, 40, 0, AfCounterId::pktInfoReceived},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(::testing::Message()
                   << toString(c.af) << " size " << c.size << " datalen " << c.datalen);
      Harness h;
      std::vector<uint8_t> buf(sizeof(packet_info) + 8);
      packet_info rec{};
      rec.ifindex = 7;
      rec.datalen = c.datalen;
      std::memcpy(buf.data(), &rec, sizeof(rec));
      int r = c.af == AddressFamily::ipv4 ? handle_v4event(h.ctx.get(), buf.data(), c.size)
                                          : handle_v6event(h.ctx.get(), buf.data(), c.size);
      EXPECT_EQ(r, c.result);
      for (size_t id = 0; id < kAfCounterCount; ++id) {
         auto cid = static_cast<AfCounterId>(id);
         EXPECT_EQ(h.counter(c.af, cid), cid == c.counted ? 1u : 0u) << toString(cid);
      }
      EXPECT_EQ(h.seen, c.result == 0 ? std::vector<uint32_t>{7} : std::vector<uint32_t>{});
      EXPECT_EQ(h.ctx->pktInfoInReg(), nullptr);  // the view never outlives the callback
   }
}

TEST(EbpfEvent, YieldStopsTheDrainAfterTheRecord) {
   Harness h;
   h.ctx->pktInfoProcessYieldStatusIs(ProcessingState::yield);
   packet_info rec{};
   rec.ifindex = 3;
   rec.datalen = 40;
   EXPECT_EQ(handle_v6event(h.ctx.get(), &rec, sizeof(rec)), -1);
   EXPECT_EQ(h.seen, std::vector<uint32_t>{3});
   EXPECT_EQ(h.counter(AddressFamily::ipv6, AfCounterId::pktInfoReceived), 1u);
}

TEST(EbpfEvent, LibbpfErrorStringNamesTheError) {
   EXPECT_NE(libbpfErrorString(-ENOENT).find("No such file"), std::string::npos);
   EXPECT_NE(libbpfErrorString(ENOENT).find("No such file"), std::string::npos);
}

}  // namespace
}  // namespace Ravel::ErrorResponder
