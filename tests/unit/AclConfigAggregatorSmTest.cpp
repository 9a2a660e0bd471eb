#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "error/AclConfigAggregatorSm.h"
#include "error/datapath/IcmpErrPktInfoProcessor.h"

namespace Ravel::ErrorResponder {
namespace {

constexpr auto v4 = AddressFamily::ipv4;
constexpr auto v6 = AddressFamily::ipv6;

// A list whose single rule names its origin, so the test can tell which source won.
AclList list(const std::string& name, AddressFamily af, const char* source,
             AclAction action = AclAction::permit) {
   return {name, af, {{action, *IpPrefix::parse(source, af), *IpPrefix::parse("any", af), {}}}};
}

enum class Src { input, cli };
struct Op {
   Src src;
   AddressFamily af;
   std::string name;
   const char* prefix;  // null: delete the list
};
// Expected aggregate: (family, name) -> the source prefix of its rule.
using Want = std::map<std::pair<AddressFamily, std::string>, std::string>;

struct World {
   Ptr<AclInput> input = make<AclInput>();
   Ptr<AclConfig> cli = make<AclConfig>();
   Ptr<AclConfig> agg = make<AclConfig>();
   Ptr<AclConfigAggregatorSm> sm;

   void apply(const Op& op) {
      AclConfig& c = op.src == Src::cli ? *cli : *input;
      if (op.prefix)
         c.of(op.af)->acl.is(op.name, list(op.name, op.af, op.prefix));
      else
         c.of(op.af)->acl.del(op.name);
   }
   Want aggregate() const {
      Want w;
      for (auto af : {v4, v6})
         for (auto& [name, l] : agg->of(af)->acl) {
            EXPECT_EQ(l.name, name);
            w[{af, name}] = l.rules.at(0).source.str();
         }
      return w;
   }
};

TEST(AclConfigAggregatorSm, AggregateFollowsBothSourcesCliWins) {
   struct Case {
      const char* what;
      std::vector<Op> before;  // applied before the aggregator exists
      std::vector<Op> after;
      Want want;
   };
   const Case cases[] = {
       {"empty", {}, {}, {}},
       {"lists present at start, both families",
        {{Src::input, v4, "A", "10.0.0.0/8"}, {Src::cli, v6, "B", "2001:db8::/32"}},
        {},
        {{{v4, "A"}, "10.0.0.0/8"}, {{v6, "B"}, "2001:db8::/32"}}},
       {"input list appears, changes",
        {},
        {{Src::input, v4, "A", "10.0.0.0/8"}, {Src::input, v4, "A", "192.0.2.0/24"}},
        {{{v4, "A"}, "192.0.2.0/24"}}},
       {"cli list appears then disappears",
        {},
        {{Src::cli, v4, "C", "10.0.0.0/8"}, {Src::cli, v4, "C", nullptr}},
        {}},
       {"input list disappears",
        {{Src::input, v6, "D", "2001:db8::/32"}},
        {{Src::input, v6, "D", nullptr}},
        {}},
       {"same name in both at start: cli",
        {{Src::input, v4, "E", "10.0.0.0/8"}, {Src::cli, v4, "E", "172.16.0.0/12"}},
        {},
        {{{v4, "E"}, "172.16.0.0/12"}}},
       {"input changes under a cli list: still cli",
        {{Src::cli, v4, "E", "172.16.0.0/12"}},
        {{Src::input, v4, "E", "10.0.0.0/8"}, {Src::input, v4, "E", "192.0.2.0/24"}},
        {{{v4, "E"}, "172.16.0.0/12"}}},
       {"cli list removed: input's shows again",
        {{Src::input, v4, "E", "10.0.0.0/8"}, {Src::cli, v4, "E", "172.16.0.0/12"}},
        {{Src::cli, v4, "E", nullptr}},
        {{{v4, "E"}, "10.0.0.0/8"}}},
       {"both removed: gone",
        {{Src::input, v4, "E", "10.0.0.0/8"}, {Src::cli, v4, "E", "172.16.0.0/12"}},
        {{Src::input, v4, "E", nullptr}, {Src::cli, v4, "E", nullptr}},
        {}},
       {"same name in the other family is another list",
        {{Src::cli, v4, "F", "10.0.0.0/8"}},
        {{Src::input, v6, "F", "2001:db8::/32"}, {Src::cli, v4, "F", nullptr}},
        {{{v6, "F"}, "2001:db8::/32"}}},
   };
   for (const auto& c : cases) {
      SCOPED_TRACE(c.what);
      World w;
      for (auto& op : c.before)
         w.apply(op);
      w.sm = make<AclConfigAggregatorSm>(w.input, w.cli, w.agg);
      for (auto& op : c.after)
         w.apply(op);
      EXPECT_EQ(w.aggregate(), c.want);
   }
}

TEST(AclConfigAggregatorSm, StaleListInTheAggregateIsDroppedAtStart) {
   // An aggregate handed over with a list no source has (left by an earlier run).
   World w;
   w.agg->ipv4->acl.is("OLD", list("OLD", v4, "10.0.0.0/8"));
   w.input->ipv4->acl.is("A", list("A", v4, "192.0.2.0/24"));
   w.sm = make<AclConfigAggregatorSm>(w.input, w.cli, w.agg);
   EXPECT_EQ(w.aggregate(), (Want{{{v4, "A"}, "192.0.2.0/24"}}));
}

// A processor built once over the aggregate follows list changes in either source.
TEST(AclConfigAggregatorSm, ProcessorFollowsChangesWithoutRebuild) {
   World w;
   w.sm = make<AclConfigAggregatorSm>(w.input, w.cli, w.agg);
   auto config = make<Config>();
   auto vc = make<VrfConfig>(VrfName("red"));
   vc->v4AclName.set("EDGE");
   config->vrfConfig.is(VrfName("red"), vc);
   auto ebpf = make<EbpfConfig>();
   auto helper =
       intfLookupHelperFactory({make<AllIntfStatusDir>(), nullptr, make<KniNsStatus>(),
                                make<IpStatus>(), make<Ip6Status>(), ebpf, make<EntityManager>()});
   auto proc = make<IcmpErrPktInfoProcessor>(IcmpErrPktInfoProcessorInputs{
       v4, helper, make<PamCollection>(), config, make<EbpfVrfStatus>(), w.agg->of(v4),
       make<ErrorResponderStats>(), ebpf});
   // The offending datagram: an IPv4 header from 10.1.2.3.
   packet_info rec{};
   const uint8_t hdr[20] = {0x45, 0, 0, 20, 0, 0, 0, 0, 1, 17, 0, 0, 10, 1, 2, 3, 192, 0, 2, 9};
   std::memcpy(rec.data, hdr, sizeof hdr);
   rec.datalen = sizeof hdr;

   using A = AclFilterAction;
   struct Step {
      Op op;
      A want;
   };
   const Step steps[] = {
       {{Src::input, v4, "OTHER", "10.0.0.0/8"}, A::noExtensionsByDefault},  // no EDGE yet
       {{Src::input, v4, "EDGE", "10.0.0.0/8"}, A::extensions},
       {{Src::input, v4, "EDGE", "192.0.2.0/24"}, A::noExtensionsByDefault},  // no match
       {{Src::cli, v4, "EDGE", "10.1.0.0/16"}, A::extensions},                // cli wins
       {{Src::cli, v4, "EDGE", nullptr}, A::noExtensionsByDefault},           // input's again
       {{Src::input, v4, "EDGE", nullptr}, A::noExtensionsByDefault},         // gone
       {{Src::cli, v6, "EDGE", "2001:db8::/32"}, A::noExtensionsByDefault},   // other family
   };
   for (const auto& s : steps) {
      w.apply(s.op);
      EXPECT_EQ(proc->aclFilterAction(rec, VrfName("red")), s.want)
          << s.op.name << " " << (s.op.prefix ? s.op.prefix : "deleted");
   }
   // A deny rule from the cli source.
   w.cli->ipv4->acl.is("EDGE", list("EDGE", v4, "10.0.0.0/8", AclAction::deny));
   EXPECT_EQ(proc->aclFilterAction(rec, VrfName("red")), A::noExtensionsByDeny);
}

}  // namespace
}  // namespace Ravel::ErrorResponder
