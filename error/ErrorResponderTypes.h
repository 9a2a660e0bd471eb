#pragma once

// Agent-local records shared by the error responder's control state machines and its loader.

#include <cstdint>
#include <set>
#include <string>

#include "agent/MiniAgent.h"
#include "error/ErrorResponderSchema.h"

struct ring_buffer;  // libbpf's ring-buffer consumer; only the loader sees its definition

namespace Ravel::ErrorResponder {

class ErrorResponderStats;
class EBPFIcmpPacketInfoBase;

// What a loaded kernel program leaves behind. The empty value has ringBufFd -1 but the map
// descriptors 0, so a value that only carries ringBufFd 0 still counts as loaded.
struct EbpfInitParams {
   void* skel = nullptr;  // the family's libbpf skeleton, owned; freed by unloadProgram
   ring_buffer* ringBuf = nullptr;
   int32_t ringBufFd = -1;  // epoll descriptor of the consumer
   int32_t nsMapFd = 0;     // namespace filter map
   int32_t statsMapFd = 0;  // kernel statistics map

   bool operator==(const EbpfInitParams&) const = default;
   explicit operator bool() const { return *this != EbpfInitParams{}; }
   void dumpState(DumpContext& ctx, int indent) const;
};

// Whether a family's program is loaded: the one place that says so.
class EbpfInitStatus : public Node {
 public:
   explicit EbpfInitStatus(AddressFamily af);
   AddressFamily af() const { return af_; }
   const EbpfInitParams& params() const { return params_; }
   void paramsIs(const EbpfInitParams& p) { params_ = p; }
   bool ebpfProgLoaded() const { return bool(params_); }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   const AddressFamily af_;
   EbpfInitParams params_;
};

// The namespaces currently written into one family's kernel filter map.
class EbpfVrfStatus : public Node {
 public:
   void enabledInodeIs(NsInode i) { enabledInode_.insert(i); }
   void enabledInodeDel(NsInode i) { enabledInode_.erase(i); }
   void enabledInodeDelAll() { enabledInode_.clear(); }
   bool enabledInodeHas(NsInode i) const { return enabledInode_.count(i) != 0; }
   const std::set<NsInode>& enabledInode() const { return enabledInode_; }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   std::set<NsInode> enabledInode_;
};

// Whether the ring-buffer drain goes on after the current record.
enum class ProcessingState : uint8_t { processing = 0, yield = 1 };
const char* toString(ProcessingState s);

// Where the ring-buffer callback hands a record to whoever processes it.
class EbpfHandlerContext : public Node {
 public:
   explicit EbpfHandlerContext(Ptr<ErrorResponderStats> stats);
   ~EbpfHandlerContext() override;
   const Ptr<ErrorResponderStats>& stats() const { return stats_; }

   EBPFIcmpPacketInfoBase* pktInfoInReg() const { return pktInfoInReg_; }
   // Observers process the record inside this call.
   void pktInfoInRegIs(EBPFIcmpPacketInfoBase* record);
   void pktInfoInRegClear() { pktInfoInReg_ = nullptr; }  // no notification
   [[nodiscard]] Subscription subscribePktInfoInReg(std::function<void()> fn) const {
      return pktInfoInRegNotifier_.subscribe(std::move(fn));
   }

   ProcessingState pktInfoProcessYieldStatus() const { return yieldStatus_; }
   void pktInfoProcessYieldStatusIs(ProcessingState s) { yieldStatus_ = s; }
   void dumpState(DumpContext& ctx, int indent) const;

 private:
   const Ptr<ErrorResponderStats> stats_;
   EBPFIcmpPacketInfoBase* pktInfoInReg_ = nullptr;
   Notifier<> pktInfoInRegNotifier_;
   ProcessingState yieldStatus_ = ProcessingState::processing;
};

// "0x..." or "null", as dumps show object references.
std::string displayPtr(const void* p);

// Dumps of the shared records.
void dumpConfig(DumpContext& ctx, int indent, const Config& c);
void dumpStatus(DumpContext& ctx, int indent, const Status& s);
void dumpEbpfConfig(DumpContext& ctx, int indent, const EbpfConfig& e);

}  // namespace Ravel::ErrorResponder
