// Per-request cost of the probe pipeline, reported next to a peer measured in the same run:
// copying the request and checksumming it, the least work any responder does per request.
#include <benchmark/benchmark.h>

#include <cstring>

#include "platform/values/Checksum.h"
#include "probe/ProbeResponderAgent.h"
#include "wire/ProbePacket.h"

namespace Ravel::ProbeResponder {

struct Pipeline {
   Scheduler sched{std::make_shared<SimulatedClock>()};
   ScopedDefaultScheduler scoped{sched};
   Ptr<AllIntfStatusDir> intfs = make<AllIntfStatusDir>();
   Ptr<L3IntfStatusDir> l3 = make<L3IntfStatusDir>();
   Ptr<IpStatus> ip = make<IpStatus>();
   Ptr<Ip6Status> ip6 = make<Ip6Status>();
   Ptr<Config> config = make<Config>();
   Ptr<Status> status = make<Status>();
   Ptr<Queues> queues = make<Queues>();
   Ptr<RootSm> sm;
   std::vector<uint8_t> wire;

   Pipeline() {
      config->enabled.set(true);
      config->ifname.set(true);
      // A router-sized table: the probed interface among 256 others.
      for (int i = 0; i < 256; ++i) {
         IntfId id(i == 100 ? "eth0" : "et" + std::to_string(i));
         auto s = make<IntfStatus>(id);
         s->operStatus.set(OperStatus::up);
         intfs->intfStatus.is(id, s);
         auto v4 = make<IpIntfStatus>(id);
         v4->vrf.set(VrfName::defaultVrf());
         v4->ipv4Running.set(true);
         ip->ipIntfStatus.is(id, v4);
      }
      sm = make<RootSm>(queues, intfs, l3, make<IfIndexStatus>(), ip, ip6, make<ArpTableStatus>(),
                        make<VrfIdMapStatus>(), config, status, nullptr, make<AclConfig>(),
                        make<AclConfig>(), make<PamConfig>(),
                        [](const VrfName&) { return Ptr<KniNsStatus>(); });
      auto icmp = buildExtendedEchoRequest(AddressFamily::ipv4, 1, 1, true, std::string("eth0"));
      wire = {0x45, 0, 0, uint8_t(20 + icmp.size()), 0, 0, 0, 0, 64, 1, 0, 0, 192, 0, 2, 1, 192,
              0,    2, 2};
      wire.insert(wire.end(), icmp.begin(), icmp.end());
   }
};

void onePacket(Pipeline& p, const IpGenAddr& src, const IpGenAddr& dst) {
   auto e = queueEntryFactory();
   e->pkt = Pkt::fromBytes(p.wire);
   e->src = src;
   e->dst = dst;
   e->vrf = VrfName::defaultVrf();
   p.sm->processOnePacket(e);
   benchmark::DoNotOptimize(p.queues->outputDeq());
}

// Parse + handle + build, one request at a time, the reply left in the output queue.
void BM_ProbePipeline(benchmark::State& state) {
   Pipeline p;
   auto src = *IpGenAddr::parse("192.0.2.1"), dst = *IpGenAddr::parse("192.0.2.2");
   for (auto _ : state)
      onePacket(p, src, dst);
   if (p.status->codeCount[0] != uint64_t(state.iterations()))
      state.SkipWithError("no reply");
}
BENCHMARK(BM_ProbePipeline);

// The peer: copy the request into a buffer and checksum it.
void BM_CopyAndChecksum(benchmark::State& state) {
   Pipeline p;
   for (auto _ : state) {
      auto pkt = Pkt::fromBytes(p.wire);
      benchmark::DoNotOptimize(internetChecksum(pkt->bytes()));
   }
}
BENCHMARK(BM_CopyAndChecksum);

}  // namespace Ravel::ProbeResponder

// "--count N": exactly N requests and nothing else, for instruction counting under callgrind.
int main(int argc, char** argv) {
   if (argc == 3 && std::string(argv[1]) == "--count") {
      using namespace Ravel;
      ProbeResponder::Pipeline p;
      auto src = *IpGenAddr::parse("192.0.2.1"), dst = *IpGenAddr::parse("192.0.2.2");
      for (long i = 0, n = std::stol(argv[2]); i < n; ++i)
         ProbeResponder::onePacket(p, src, dst);
      return 0;
   }
   benchmark::Initialize(&argc, argv);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   return 0;
}
