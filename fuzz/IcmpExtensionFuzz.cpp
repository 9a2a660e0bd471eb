// Fuzzes the ICMP error codec two ways, chosen by the first byte: arbitrary bytes through the
// parser (no crash, no read outside the input, sane results), and messages built from
// arbitrary fields, which must parse back to those fields.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

#include "platform/values/Checksum.h"
#include "platform/values/PacketHeaders.h"
#include "wire/IcmpExtension.h"

using namespace Ravel;

namespace {

void check(bool ok, const char* what) {
   if (!ok) {
      std::fprintf(stderr, "check failed: %s\n", what);
      std::abort();
   }
}

// What the parser gives back for a name the builder was handed.
std::string sentName(std::string name) {
   if (name.size() > kIcmpIntfNameMaxLength)
      name.resize(kIcmpIntfNameMaxLength);
   while (!name.empty() && name.back() == '\0')
      name.pop_back();
   return name;
}

IpGenAddr sentAddr(const IpGenAddr& a) {
   return a.isZero() ? IpGenAddr() : a;
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

// Makes the checksums right so that arbitrary objects get past them: random bytes almost never
// sum correctly.
void sealChecksums(std::vector<uint8_t>& m, AddressFamily af) {
   if (m.size() < 8)
      return;
   bool v6 = af == AddressFamily::ipv6;
   size_t extnAt = 8 + size_t{v6 ? m[4] : m[5]} * (v6 ? 8 : 4);
   if (extnAt + 4 <= m.size()) {
      std::span<uint8_t> extn = std::span(m).subspan(extnAt);
      store16(extn, 2, 0);
      store16(extn, 2, internetChecksum(extn));
   }
   if (!v6) {
      store16(m, 2, 0);
      store16(m, 2, internetChecksum(m));
   }
}

void parseArbitrary(FuzzedDataProvider& in) {
   IcmpParseOptions opts;
   opts.af = in.ConsumeBool() ? AddressFamily::ipv6 : AddressFamily::ipv4;
   opts.nodeIdClassNum = in.ConsumeIntegral<uint8_t>();
   bool seal = in.ConsumeBool();
   auto bytes = in.ConsumeRemainingBytes<uint8_t>();
   if (seal)
      sealChecksums(bytes, opts.af);
   auto r = parseIcmpError(bytes, opts);
   check(r.msg.has_value() == (r.error == IcmpParseError::none), "result and error agree");
   if (!r)
      return;
   check(r.msg->quote.size() + 8 <= bytes.size(), "quote inside the message");
   check(r.msg->hasExtensions || (r.msg->intfs.empty() && !r.msg->node), "objects need extensions");
   for (const auto& o : r.msg->intfs)
      check(o.name.size() <= kIcmpIntfNameMaxLength, "name within its sub-object");
}

void roundTrip(FuzzedDataProvider& in) {
   IcmpErrorSpec s;
   s.af = in.ConsumeBool() ? AddressFamily::ipv6 : AddressFamily::ipv4;
   const uint8_t v4Types[] = {kIcmpDestUnreach, kIcmpTimeExceeded, kIcmpParamProblem};
   const uint8_t v6Types[] = {kIcmp6DestUnreach, kIcmp6TimeExceeded};
   s.type =
       s.af == AddressFamily::ipv6 ? in.PickValueInArray(v6Types) : in.PickValueInArray(v4Types);
   s.code = in.ConsumeIntegral<uint8_t>();
   s.restOfHeader = in.ConsumeIntegral<uint32_t>();
   s.withExtensions = in.ConsumeBool();
   for (uint8_t role = in.ConsumeIntegralInRange<uint8_t>(0, 3); role < 4;
        role = in.ConsumeIntegralInRange<uint8_t>(role + 1, 4)) {
      IcmpIntfInfoObject o;
      o.role = static_cast<IcmpIntfRole>(role);
      o.ifIndex = in.ConsumeIntegral<uint32_t>();
      o.addr = pickAddr(in);
      o.name = in.ConsumeRandomLengthString(100);
      o.mtu = in.ConsumeIntegral<uint32_t>();
      s.intfs.push_back(o);
   }
   if (in.ConsumeBool()) {
      IcmpNodeIdObject n;
      n.classNum = in.ConsumeIntegralInRange<uint8_t>(3, 255);
      n.addr = pickAddr(in);
      n.hostName = in.ConsumeRandomLengthString(100);
      s.node = n;
   }
   auto datagram = in.ConsumeRemainingBytes<uint8_t>();
   s.datagram = datagram;

   auto m = buildIcmpError(s);
   IcmpParseOptions opts{s.af, s.node ? s.node->classNum : uint8_t{0}};
   auto r = parseIcmpError(m, opts);
   check(r.msg.has_value(), toString(r.error));
   const IcmpErrorMessage& p = *r.msg;
   check(p.type == s.type && p.code == s.code, "type and code");
   check(p.hasExtensions == s.withExtensions, "extensions");
   size_t quoted = std::min(datagram.size(), p.quote.size());
   check(std::equal(datagram.begin(), datagram.begin() + static_cast<ptrdiff_t>(quoted),
                    p.quote.begin()),
         "quote");
   if (!s.withExtensions)
      return;
   check(p.quote.size() == kIcmpExtnQuoteLength, "padded quote");
   check(p.intfs.size() == s.intfs.size(), "one object per role");
   for (size_t i = 0; i < s.intfs.size() && i < p.intfs.size(); ++i) {
      IcmpIntfInfoObject want = s.intfs[i];
      want.name = sentName(want.name);
      want.addr = sentAddr(want.addr);
      check(p.intfs[i] == want, "interface object");
   }
   check(p.node.has_value() == s.node.has_value(), "node object");
   if (s.node) {
      check(p.node->addr == sentAddr(s.node->addr), "node address");
      check(p.node->hostName == sentName(s.node->hostName), "node name");
   }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   FuzzedDataProvider in(data, size);
   if (in.ConsumeBool())
      roundTrip(in);
   else
      parseArbitrary(in);
   return 0;
}
