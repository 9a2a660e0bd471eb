#include "probe/RequestAdmission.h"

#include <array>

#include "platform/core/Assert.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ProbeRequestAdmission");

namespace Ravel::ProbeResponder {

namespace {

// The address with the bits past `len` cleared: the source prefix a bucket stands for.
IpGenAddr prefixOf(const IpGenAddr& a, uint8_t len) {
   auto b = a.bytes();
   std::array<uint8_t, 16> out{};
   for (size_t i = 0; i < b.size(); ++i) {
      unsigned keep = len >= (i + 1) * 8 ? 8 : len > i * 8 ? len - i * 8 : 0;
      out[i] = static_cast<uint8_t>(b[i] & (0xff00u >> keep));
   }
   return *IpGenAddr::fromBytes({out.data(), b.size()});
}

}  // namespace

RequestAdmission::RequestAdmission(Ptr<Config> config, Ptr<IntfIdByIfIndex> intfIdByIfIndex,
                                   Ptr<IpStatus> ipStatus, Scheduler& scheduler)
    : config_(std::move(config)),
      intfIdByIfIndex_(std::move(intfIdByIfIndex)),
      ipStatus_(std::move(ipStatus)),
      scheduler_(scheduler) {
   RAVEL_ASSERT(config_ && intfIdByIfIndex_ && ipStatus_);
   rateSub_ = config_->rateLimit.subscribe([this] { handleRateLimit(); });
   handleRateLimit();
}

void RequestAdmission::handleRateLimit() {
   const RateLimitSettings& r = config_->rateLimit();
   all_ = TokenBucket(r.rate, std::max(r.burst, r.rate));
   perSource_.clear();  // buckets of the old rate
}

std::pair<IpGenAddr, uint8_t> RequestAdmission::sourceKey(const IpGenAddr& src) const {
   const RateLimitSettings& r = config_->rateLimit();
   uint8_t len = src.isV6() ? r.ipv6PrefixLength : r.ipv4PrefixLength;
   return {prefixOf(src, len), len};
}

bool RequestAdmission::broadcast(const IpGenAddr& dst, uint32_t rxIfIndex) const {
   auto b = dst.bytes();
   if (dst.isV6())
      return b[0] == 0xff;
   if ((b[0] & 0xf0) == 0xe0 || dst == *IpGenAddr::parse("255.255.255.255"))
      return true;
   // A directed broadcast: the host part of the arrival interface's subnet all ones.
   IntfId id = intfIdByIfIndex_->intfId.get(rxIfIndex);
   auto ip = id.empty() ? nullptr : ipStatus_->ipIntfStatus.get(id);
   if (!ip)
      return false;
   const IpPrefixAddr& p = ip->primaryAddr();
   if (p.prefixLen >= 31 || !p.addr.isV4())
      return false;
   uint32_t host = uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
   uint32_t mask = p.prefixLen == 0 ? 0 : 0xffffffffu << (32 - p.prefixLen);
   return prefixOf(dst, p.prefixLen) == prefixOf(p.addr, p.prefixLen) &&
          (host | mask) == 0xffffffffu;
}

Admission RequestAdmission::admit(const IpGenAddr& src, const IpGenAddr& dst, uint32_t rxIfIndex) {
   if (broadcast(dst, rxIfIndex))
      return Admission::notUnicast;
   Seconds now = scheduler_.now();
   // The source's own limit first: one noisy source must not use up everyone's share.
   const RateLimitSettings& r = config_->rateLimit();
   if (r.perSourceRate != 0) {
      auto key = sourceKey(src);
      auto it = perSource_.find(key);
      if (it == perSource_.end()) {
         if (perSource_.size() >= kMaxSources)
            std::erase_if(perSource_, [now](const auto& s) { return s.second.full(now); });
         if (perSource_.size() >= kMaxSources)
            return Admission::rateLimited;
         it = perSource_
                  .emplace(key, TokenBucket(r.perSourceRate,
                                            std::max(r.perSourceBurst, r.perSourceRate)))
                  .first;
      }
      if (!it->second.take(now))
         return Admission::rateLimited;
   }
   if (!all_.take(now))
      return Admission::rateLimited;
   return Admission::admitted;
}

}  // namespace Ravel::ProbeResponder
