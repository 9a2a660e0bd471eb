// Fuzzes the error responder's data path with arbitrary kernel records: any size, data length,
// ICMP header and data, against a VRF whose ACL, node identification and host-name settings
// the input also picks. Every reply sent must be a well-formed error of the record's family
// whose form (plain or extended) matches what the counters say was sent.

#include <fuzzer/FuzzedDataProvider.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error/datapath/IcmpErrPktInfoProcessor.h"
#include "tests/unit/FakePam.h"
#include "wire/IcmpExtension.h"

using namespace Ravel;
using namespace Ravel::ErrorResponder;

namespace {

constexpr NsInode kInode = 4026532001;

void check(bool ok, const char* what) {
   if (!ok) {
      std::fprintf(stderr, "check failed: %s\n", what);
      std::abort();
   }
}

IpGenAddr pickAddr(FuzzedDataProvider& in) {
   switch (in.ConsumeIntegralInRange(0, 2)) {
      case 0:
         return IpGenAddr();
      case 1: {
         auto b = in.ConsumeBytes<uint8_t>(4);
         b.resize(4);
         return *IpGenAddr::fromBytes(b);
      }
      default: {
         auto b = in.ConsumeBytes<uint8_t>(16);
         b.resize(16);
         return *IpGenAddr::fromBytes(b);
      }
   }
}

// Built once: VRF red with one interface (kernel index 7) whose name and addresses the input
// may replace, PAMs for both families.
struct World {
   World() {
      ebpfConfig->entryByInodeIs(kInode, ebpfConfig->entryIs("red", kInode));
      config->vrfConfig.is("red", make<VrfConfig>("red"));
      helper = intfLookupHelperFactory(
          {intfs, nullptr, make<KniNsStatus>(), ip, ip6, ebpfConfig, emPtr});
      for (int i = 0; i < 2; ++i) {
         AddressFamily af = i ? AddressFamily::ipv6 : AddressFamily::ipv4;
         stats->errorResponderAfStatsIs(af)->errorResponderVrfStatsIs("red");
         vrfStatus[i]->enabledInodeIs(kInode);
         int proto = i ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
         pam[i] = make<testing::FakePam>("red", af, proto, "ns-red");
         pams->pamIs({"red", af}, pam[i]);
         proc[i] = make<IcmpErrPktInfoProcessor>(IcmpErrPktInfoProcessorInputs{
             af, helper, pams, config, vrfStatus[i], acl->of(af), stats, ebpfConfig});
         proc[i]->replyHandler()->hostNameIs("fuzz-host");
      }
      kni = emPtr->entityAs<KniNsStatus>("kni/ns/ns-red/status");
   }

   Ptr<EntityManager> emPtr = make<EntityManager>();
   Ptr<AllIntfStatusDir> intfs = make<AllIntfStatusDir>();
   Ptr<IpStatus> ip = make<IpStatus>();
   Ptr<Ip6Status> ip6 = make<Ip6Status>();
   Ptr<EbpfConfig> ebpfConfig = make<EbpfConfig>();
   Ptr<Config> config = make<Config>();
   Ptr<ErrorResponderStats> stats = make<ErrorResponderStats>();
   Ptr<EbpfVrfStatus> vrfStatus[2] = {make<EbpfVrfStatus>(), make<EbpfVrfStatus>()};
   Ptr<AclConfig> acl = make<AclConfig>();
   Ptr<PamCollection> pams = make<PamCollection>();
   Ptr<testing::FakePam> pam[2];
   Ptr<IntfLookupHelper> helper;
   Ptr<IcmpErrPktInfoProcessor> proc[2];
   Ptr<KniNsStatus> kni;
};

void configure(World& w, FuzzedDataProvider& in, AddressFamily af) {
   IntfId id = IntfId::fromKernelName(in.ConsumeRandomLengthString(120));
   auto s = make<IntfStatus>(id);
   s->mtu.set(in.ConsumeIntegral<uint32_t>());
   s->snmpIndex.set(in.ConsumeIntegral<uint32_t>());
   w.intfs->intfStatus.delAll();
   w.intfs->intfStatus.is(id, s);
   auto ipS = make<IpIntfStatus>(id);
   ipS->primaryAddr.set({pickAddr(in), 24});
   w.ip->ipIntfStatus.delAll();
   w.ip->ipIntfStatus.is(id, ipS);
   auto ip6S = make<Ip6IntfStatus>(id);
   std::set<IpPrefixAddr> addrs;
   for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n)
      addrs.insert({pickAddr(in), 64});
   ip6S->addrs.set(addrs);
   w.ip6->ip6IntfStatus.delAll();
   w.ip6->ip6IntfStatus.is(id, ip6S);
   w.kni->intf.is(7, {"eth7", id});

   w.config->addHostName.set(in.ConsumeBool());
   w.config->nodeIdCodePoint.set(in.ConsumeIntegral<uint8_t>());
   auto vc = w.config->vrfConfig.get("red");
   vc->nodeIdConfig.set({pickAddr(in), pickAddr(in), in.ConsumeBool() ? id : IntfId()});
   std::string aclName = in.ConsumeBool() ? "f" : "";
   (af == AddressFamily::ipv4 ? vc->v4AclName : vc->v6AclName).set(aclName);
   w.acl->of(af)->acl.delAll();
   if (in.ConsumeBool()) {
      AclList l{"f", af, {}};
      AclRule r;
      r.action = in.ConsumeBool() ? AclAction::permit : AclAction::deny;
      r.source = *IpPrefix::parse("any", af);
      r.destination = *IpPrefix::parse("any", af);
      if (in.ConsumeBool())
         r.protocol = in.ConsumeIntegral<uint8_t>();
      l.rules.push_back(r);
      w.acl->of(af)->acl.is("f", l);
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   static World* world = new World;
   World& w = *world;
   FuzzedDataProvider in(data, size);
   int fam = in.ConsumeBool() ? 1 : 0;
   AddressFamily af = fam ? AddressFamily::ipv6 : AddressFamily::ipv4;
   configure(w, in, af);
   packet_info r{};
   bool aimed = in.ConsumeBool();  // reach the reply path rather than namespace validation
   auto raw = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, sizeof r));
   if (!raw.empty())
      std::memcpy(&r, raw.data(), raw.size());
   if (aimed) {
      r.nsindex = static_cast<uint32_t>(kInode);
      r.ifindex = in.ConsumeBool() ? 7 : r.ifindex;
   }
   auto& pam = *w.pam[fam];
   pam.tx.clear();
   pam.nextTxErrno = in.ConsumeBool() ? 0 : EPERM;
   auto vrfStats = w.stats->errorResponderAfStats(af)->errorResponderVrfStats("red");
   uint64_t extBefore = vrfStats->counter(VrfCounterId::extendedErrorSent);

   w.proc[fam]->processPacketInfo(r);

   check(pam.tx.size() <= 1, "one reply at most");
   if (pam.tx.empty())
      return 0;
   auto& bytes = pam.tx[0].bytes;
   check(bytes.size() <= (fam ? 1280u : 576u), "reply fits the minimum MTU");
   check(pam.tx[0].mark == kErrorReplySockMark, "mark");
   auto parsed = parseIcmpError(bytes, {af, w.config->nodeIdCodePoint(), {}, {}});
   bool ext = vrfStats->counter(VrfCounterId::extendedErrorSent) != extBefore;
   // Only error types the codec knows parse; the kernel reports no others, the fuzzer may.
   if (parsed) {
      check(parsed.msg->hasExtensions == ext, "extensions as counted");
      check(parsed.msg->type == (fam ? r.hdr.icmp6.icmp6_type : r.hdr.icmp4.type), "type");
   }
   return 0;
}
