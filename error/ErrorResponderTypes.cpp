#include "error/ErrorResponderTypes.h"

#include <fmt/format.h>

#include "error/ErrorResponderCounterSm.h"
#include "platform/core/Assert.h"

namespace Ravel::ErrorResponder {

std::string displayPtr(const void* p) {
   return p ? fmt::format("{}", p) : std::string("null");
}

void EbpfInitParams::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "EbpfInitParams\n");
   RAVEL_DUMP(ctx, indent + 2, "skel=%s\n", displayPtr(skel).c_str());
   RAVEL_DUMP(ctx, indent + 2, "ringBuf=%s\n", displayPtr(ringBuf).c_str());
   RAVEL_DUMP(ctx, indent + 2, "ringBufFd=%d\n", ringBufFd);
   RAVEL_DUMP(ctx, indent + 2, "nsMapFd=%d\n", nsMapFd);
   RAVEL_DUMP(ctx, indent + 2, "statsMapFd=%d\n", statsMapFd);
}

EbpfInitStatus::EbpfInitStatus(AddressFamily af) : af_(af) {
   RAVEL_ASSERT(af == AddressFamily::ipv4 || af == AddressFamily::ipv6);
}

void EbpfInitStatus::dumpState(DumpContext& ctx, int indent) const {
   params_.dumpState(ctx, indent);
}

void EbpfVrfStatus::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "enabledInode[] %d\n", static_cast<int>(enabledInode_.size()));
   for (NsInode i : enabledInode_)
      RAVEL_DUMP(ctx, indent + 2, "%llu\n", static_cast<unsigned long long>(i));
}

const char* toString(ProcessingState s) {
   return s == ProcessingState::yield ? "yield" : "processing";
}

EbpfHandlerContext::EbpfHandlerContext(Ptr<ErrorResponderStats> stats) : stats_(std::move(stats)) {
   RAVEL_ASSERT(stats_);
}

EbpfHandlerContext::~EbpfHandlerContext() = default;

void EbpfHandlerContext::pktInfoInRegIs(EBPFIcmpPacketInfoBase* record) {
   pktInfoInReg_ = record;
   pktInfoInRegNotifier_.notify();
}

void EbpfHandlerContext::dumpState(DumpContext& ctx, int indent) const {
   RAVEL_DUMP(ctx, indent, "stats=%s\n", displayPtr(stats_.get()).c_str());
   RAVEL_DUMP(ctx, indent, "pktInfoInReg=%s\n", displayPtr(pktInfoInReg_).c_str());
   RAVEL_DUMP(ctx, indent, "pktInfoProcessYieldStatus=%s\n", toString(yieldStatus_));
}

void dumpConfig(DumpContext& ctx, int indent, const Config& c) {
   RAVEL_DUMP(ctx, indent, "ErrorResponder::Config %s\n", displayPtr(&c).c_str());
   int in = indent + 2;
   RAVEL_DUMP(ctx, in, "enabled=%s\n", c.enabled().str());
   RAVEL_DUMP(ctx, in, "addHostName=%d\n", c.addHostName() ? 1 : 0);
   RAVEL_DUMP(ctx, in, "nodeIdCodePoint=%d\n", c.nodeIdCodePoint());
   RAVEL_DUMP(ctx, in, "vrfConfig[] %d\n", static_cast<int>(c.vrfConfig.size()));
   for (auto& [name, v] : c.vrfConfig) {
      RAVEL_DUMP(ctx, in + 2, "%s\n", name.str().c_str());
      RAVEL_DUMP(ctx, in + 4, "enabled=%s\n", v->enabled().str());
      RAVEL_DUMP(ctx, in + 4, "v4AclName=%s\n", v->v4AclName().c_str());
      RAVEL_DUMP(ctx, in + 4, "v6AclName=%s\n", v->v6AclName().c_str());
      RAVEL_DUMP(ctx, in + 4, "nodeIdConfig=%s\n", v->nodeIdConfig().str().c_str());
   }
}

void dumpStatus(DumpContext& ctx, int indent, const Status& s) {
   RAVEL_DUMP(ctx, indent, "ErrorResponder::Status %s\n", displayPtr(&s).c_str());
   int in = indent + 2;
   RAVEL_DUMP(ctx, in, "nsInodeConflict=%llu\n",
              static_cast<unsigned long long>(s.nsInodeConflict));
   RAVEL_DUMP(ctx, in, "ebpfLoadFailed=%llu\n", static_cast<unsigned long long>(s.ebpfLoadFailed));
   RAVEL_DUMP(ctx, in, "kernelErrorFilterFailed=%llu\n",
              static_cast<unsigned long long>(s.kernelErrorFilterFailed));
   RAVEL_DUMP(ctx, in, "afStatus[] %d\n", static_cast<int>(s.afStatus.size()));
   for (auto& [af, a] : s.afStatus) {
      RAVEL_DUMP(ctx, in + 2, "%s\n", toString(af));
      RAVEL_DUMP(ctx, in + 4, "afCounter[] %d\n", static_cast<int>(a->afCounter.size()));
      for (auto& [id, v] : a->afCounter)
         RAVEL_DUMP(ctx, in + 6, "%s->%llu\n", toString(id), static_cast<unsigned long long>(v));
      RAVEL_DUMP(ctx, in + 4, "vrfStatus[] %d\n", static_cast<int>(a->vrfStatus.size()));
      for (auto& [name, v] : a->vrfStatus) {
         RAVEL_DUMP(ctx, in + 6, "%s\n", name.str().c_str());
         RAVEL_DUMP(ctx, in + 8, "vrfCounter[] %d\n", static_cast<int>(v->vrfCounter.size()));
         for (auto& [id, n] : v->vrfCounter) {
            RAVEL_DUMP(ctx, in + 10, "%s->%llu\n", toString(id),
                       static_cast<unsigned long long>(n));
         }
      }
   }
}

void dumpEbpfConfig(DumpContext& ctx, int indent, const EbpfConfig& e) {
   RAVEL_DUMP(ctx, indent, "ErrorResponder::EbpfConfig %s\n", displayPtr(&e).c_str());
   int in = indent + 2;
   RAVEL_DUMP(ctx, in, "ringBufSz=%d\n", static_cast<int>(e.ringBufSz()));
   RAVEL_DUMP(ctx, in, "vrfMapSz=%d\n", static_cast<int>(e.vrfMapSz()));
   RAVEL_DUMP(ctx, in, "entry[] %d\n", static_cast<int>(e.entry.size()));
   for (auto& [name, x] : e.entry) {
      RAVEL_DUMP(ctx, in + 2, "%s\n", name.str().c_str());
      RAVEL_DUMP(ctx, in + 4, "nsInode=%llu\n", static_cast<unsigned long long>(x->nsInode));
   }
   RAVEL_DUMP(ctx, in, "entryByInode[] %d\n", static_cast<int>(e.entryByInode.size()));
   for (auto& [inode, x] : e.entryByInode) {
      RAVEL_DUMP(ctx, in + 2, "%llu->%s\n", static_cast<unsigned long long>(inode),
                 x->vrfName.str().c_str());
   }
}

}  // namespace Ravel::ErrorResponder
