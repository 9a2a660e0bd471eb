#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <deque>
#include <vector>

#include "bpf/IcmpPktInfo.h"
#include "error/EbpfRingBufSm.h"
#include "error/datapath/EbpfIpGenHelper.h"
#include "platform/core/Fd.h"
#include "tests/unit/YieldAfter.h"

namespace Ravel::ErrorResponder {
namespace {

// A ring of scripted records handed to the real callback, the way libbpf's consumer does:
// in order, stopping after a record whose callback asks to.
class ScriptedRing : public EbpfHelperBase {
 public:
   explicit ScriptedRing(EbpfHandlerContext* ctx) : ctx_(ctx) {}
   std::deque<packet_info> ring;
   EbpfKernelStats kernel;
   bool statsFail = false;
   int consumeCalls = 0;
   int clears = 0;

   int consume(const EbpfInitParams&) override {
      ++consumeCalls;
      int n = 0;
      while (!ring.empty()) {
         packet_info r = ring.front();
         ring.pop_front();
         ++n;
         if (handle_v4event(ctx_, &r, sizeof r) < 0)
            break;
      }
      return n;
   }
   bool kernelStats(const EbpfInitParams&, EbpfKernelStats& out) const override {
      out = kernel;
      return !statsFail;
   }
   void kernelStatsClear(const EbpfInitParams&) override { ++clears; }
   EbpfInitParams loadProgram(const Ptr<EbpfConfig>&, const Ptr<EbpfHandlerContext>&) override {
      return {};
   }
   void unloadProgram(const EbpfInitParams&) override {}
   bool addToVrfMap(int32_t, NsInode) override { return true; }
   void removeFromVrfMap(int32_t, NsInode) override {}
   void afterUnload() override {}
   std::string lastLoadError() const override { return {}; }

 private:
   EbpfHandlerContext* ctx_;
};

packet_info record(uint32_t ifindex) {
   packet_info r{};
   r.ifindex = ifindex;
   r.datalen = 28;
   r.data[0] = 0x45;
   return r;
}

struct RingBufSmTest : ::testing::Test {
   Scheduler sched{std::make_shared<SimulatedClock>()};
   Fd ringFd{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
   Ptr<ErrorResponderStats> stats = make<ErrorResponderStats>();
   Ptr<EbpfHandlerContext> ctx = make<EbpfHandlerContext>(stats);
   Ptr<EbpfInitStatus> init = make<EbpfInitStatus>(AddressFamily::ipv4);
   Ptr<ScriptedRing> ring = make<ScriptedRing>(ctx.get());
   std::vector<uint32_t> processed;

   RingBufSmTest() {
      stats->errorResponderAfStatsIs(AddressFamily::ipv4);
      EbpfInitParams p;
      p.ringBufFd = ringFd.get();
      p.statsMapFd = 7;
      init->paramsIs(p);
   }
   Ptr<EbpfRingBufSm> makeSm() {
      return make<EbpfRingBufSm>(
          AddressFamily::ipv4, init, ctx, ring, stats,
          [this](EBPFIcmpPacketInfoBase& r) { processed.push_back(r.ifIndex()); }, sched);
   }
   // One scheduler turn in which a task ran (a wake-up is seen by the poll ending a pass).
   void turn() {
      for (int i = 0; i < 3 && sched.runOnce(0) == 0; ++i) {
      }
   }
   uint64_t counter(AfCounterId id) {
      return stats->errorResponderAfStats(AddressFamily::ipv4)->counter(id);
   }
};

TEST_F(RingBufSmTest, RecordsQueuedBeforehandAreDrainedAtOnceInOrder) {
   for (uint32_t i : {11, 12, 13})
      ring->ring.push_back(record(i));
   auto sm = makeSm();
   EXPECT_EQ(processed, (std::vector<uint32_t>{11, 12, 13}));
   EXPECT_EQ(sm->fdReadEventCnt(), 1u);  // passes, not records
   EXPECT_EQ(counter(AfCounterId::pktInfoReceived), 3u);
   EXPECT_EQ(ctx->pktInfoProcessYieldStatus(), ProcessingState::processing);
}

TEST_F(RingBufSmTest, YieldingAfterEveryRecordTakesOneRecordPerTurn) {
   sched.yieldPolicyIs(std::make_unique<test::YieldAfter>(1));
   auto sm = makeSm();
   for (uint32_t i : {21, 22, 23})
      ring->ring.push_back(record(i));
   uint64_t one = 1;
   ASSERT_EQ(::write(ringFd.get(), &one, sizeof one), ssize_t(sizeof one));
   turn();
   EXPECT_EQ(processed, (std::vector<uint32_t>{21}));
   EXPECT_EQ(ctx->pktInfoProcessYieldStatus(), ProcessingState::yield);
   // No new wake-up is needed: the task re-armed itself.
   turn();
   EXPECT_EQ(processed, (std::vector<uint32_t>{21, 22}));
   turn();
   EXPECT_EQ(processed, (std::vector<uint32_t>{21, 22, 23}));
   EXPECT_EQ(sm->fdReadEventCnt(), 4u);  // the pass at creation found nothing
   EXPECT_TRUE(ring->ring.empty());
}

TEST_F(RingBufSmTest, AWakeUpDrainsAndAnUnloadedProgramIsNotDrained) {
   auto sm = makeSm();
   ring->ring.push_back(record(31));
   uint64_t one = 1;
   ASSERT_EQ(::write(ringFd.get(), &one, sizeof one), ssize_t(sizeof one));
   turn();
   EXPECT_EQ(processed, (std::vector<uint32_t>{31}));
   uint64_t drained;
   ASSERT_EQ(::read(ringFd.get(), &drained, sizeof drained), ssize_t(sizeof drained));

   init->paramsIs({});
   ring->ring.push_back(record(32));
   ASSERT_EQ(::write(ringFd.get(), &one, sizeof one), ssize_t(sizeof one));
   turn();
   EXPECT_EQ(processed.size(), 1u);
   EXPECT_EQ(sm->fdReadEventCnt(), 2u);
}

TEST_F(RingBufSmTest, KernelCountsReachTheCountersOnlyWhenTheyChange) {
   auto sm = makeSm();
   struct Step {
      EbpfKernelStats kernel;
      bool fail;
      uint64_t queued, dropped;
      bool pending;
   };
   const Step steps[] = {
       {{5, 2}, false, 5, 2, true},
       {{5, 2}, false, 5, 2, false},  // nothing moved: no sync asked for
       {{9, 2}, false, 9, 2, true},
       {{9, 2}, true, 0, 0, true},  // a failed lookup reads as 0
   };
   for (const auto& s : steps) {
      ring->kernel = s.kernel;
      ring->statsFail = s.fail;
      stats->pendingSyncIs(false);
      stats->updateEbpfStatsIs(true);
      stats->updateEbpfStatsIs(false);
      EXPECT_EQ(counter(AfCounterId::ringBufQueued), s.queued);
      EXPECT_EQ(counter(AfCounterId::ringBufDropped), s.dropped);
      EXPECT_EQ(stats->pendingSync(), s.pending);
   }
   stats->clearEbpfStatsIs(true);
   EXPECT_EQ(ring->clears, 1);
}

}  // namespace
}  // namespace Ravel::ErrorResponder
