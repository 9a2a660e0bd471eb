// The only place that speaks libbpf: opens, sizes, loads and attaches the ICMP probe programs,
// creates their ring-buffer consumers and keeps their namespace filter maps.

#include "error/datapath/EbpfIpGenHelper.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>

#include "IcmpPktInfo.h"
#include "error/ErrorResponderCounterSm.h"
#include "error/datapath/EBPFIcmpPacketInfo.h"
#include "error/datapath/IcmpPushReplyLayout.h"
#include "icmp6_kprobe_ebpf.skel.h"
#include "icmp_kprobe_ebpf.skel.h"
#include "platform/core/Assert.h"
#include "platform/core/RateLimit.h"
#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("ErrorResponderEbpfHelper");

namespace Ravel::ErrorResponder {

namespace {

int libbpf_print_fn(enum libbpf_print_level level, const char* format, va_list args) {
   char buf[1024];
   int n = std::vsnprintf(buf, sizeof(buf), format, args);
   std::string_view msg(buf);
   while (!msg.empty() && msg.back() == '\n')
      msg.remove_suffix(1);
   switch (level) {
      case LIBBPF_WARN:
         TRACE(1, "{}", msg);
         break;
      case LIBBPF_INFO:
         TRACE(5, "{}", msg);
         break;
      case LIBBPF_DEBUG:
         TRACE(8, "{}", msg);
         break;
   }
   return n;
}

struct RingBufferFree {
   void operator()(ring_buffer* rb) const { ring_buffer__free(rb); }
};
using RingBufferPtr = std::unique_ptr<ring_buffer, RingBufferFree>;

// What differs between the families: skeleton, callback and a few report texts.
struct V4 {
   using Skel = icmp_kprobe_ebpf;
   static constexpr AddressFamily af = AddressFamily::ipv4;
   static Skel* open() { return icmp_kprobe_ebpf__open(); }
   static int load(Skel* s) { return icmp_kprobe_ebpf__load(s); }
   static int attach(Skel* s) { return icmp_kprobe_ebpf__attach(s); }
   static void destroy(Skel* s) { icmp_kprobe_ebpf__destroy(s); }
   static constexpr ring_buffer_sample_fn callback = handle_v4event;
   static constexpr const char* ringSizeTrace =
       "Failed to set max entries for ringbuf map, errno {}: {}";
   static constexpr const char* attachTrace = "Failed to attach EBPF skeleton - err {}:{}";
   static constexpr const char* statsFdStderr = "Failed to get stats map fd errno: ";
   static constexpr const char* ringBufTrace = "Failed to create ring buffer, errno {} : {}";
};

struct V6 {
   using Skel = icmp6_kprobe_ebpf;
   static constexpr AddressFamily af = AddressFamily::ipv6;
   static Skel* open() { return icmp6_kprobe_ebpf__open(); }
   static int load(Skel* s) { return icmp6_kprobe_ebpf__load(s); }
   static int attach(Skel* s) { return icmp6_kprobe_ebpf__attach(s); }
   static void destroy(Skel* s) { icmp6_kprobe_ebpf__destroy(s); }
   static constexpr ring_buffer_sample_fn callback = handle_v6event;
   static constexpr const char* ringSizeTrace =
       "Failed to set max entries for ringbuf map, errno {}:{}";
   static constexpr const char* attachTrace = "Failed to attach EBPF skeleton - err {}: {}";
   static constexpr const char* statsFdStderr = "Failed to get stats map fd, errno";
   static constexpr const char* ringBufTrace = "Failed to create ring buffer, errno {}:{}";
};

template <typename F>
struct SkelDestroy {
   void operator()(typename F::Skel* s) const { F::destroy(s); }
};
template <typename F>
using SkelPtr = std::unique_ptr<typename F::Skel, SkelDestroy<F>>;

// Why each family's last load failed, for the operator.
std::string& lastLoadFailure(AddressFamily af) {
   static std::string failure[2];
   return failure[af == AddressFamily::ipv6 ? 1 : 0];
}

// A failed step: a trace, a line on standard error and the step's stop message.
void reportLoadFailure(AddressFamily af, const char* traceFormat, const char* stderrPrefix,
                       int code, const char* stopMessage) {
   std::string text = libbpfErrorString(code);
   TRACE(1, "{}", fmt::format(fmt::runtime(traceFormat), code, text));
   std::fprintf(stderr, "%s%d (%s)\n", stderrPrefix, code, text.c_str());
   TRACE(1, "{}: {}", af, stopMessage);
   lastLoadFailure(af) = fmt::format("{}: {} ({})", stopMessage, code, text);
}

template <typename F>
void setIcmpParamArg(typename F::Skel*, int) {}
template <>
void setIcmpParamArg<V4>(V4::Skel* skel, int arg) {
   skel->rodata->icmp_param_arg = arg;
}

template <typename F>
EbpfInitParams loadFamily(const Ptr<EbpfConfig>& ebpfConfig, const Ptr<EbpfHandlerContext>& ctx) {
   RAVEL_ASSERT(ebpfConfig);
   RAVEL_ASSERT(ctx);
   TRACE(4, "af: {}", F::af);
   const uint32_t ringBufSz = ebpfConfig->ringBufSz();
   const uint32_t vrfMapSz = ebpfConfig->vrfMapSz();
   const long pageSize = ::sysconf(_SC_PAGESIZE);
   const bool atLeastOnePage = pageSize > 0 && ringBufSz / pageSize != 0;
   libbpf_set_print(libbpf_print_fn);

   // The IPv4 program reads icmp_param from the register the running kernel passes it in.
   int icmpParam = 0;
   if constexpr (F::af == AddressFamily::ipv4) {
      // The running kernel's BTF does not change under us: read it once.
      static const IcmpPushReplyLayoutResult layout = icmpPushReplyLayout();
      icmpParam = icmpParamArg(layout.layout);
      if (icmpParam < 0) {
         TRACE(1, "Unknown icmp_push_reply layout: {}", layout.reason);
         std::fprintf(stderr, "IcmpErrResponder: unknown icmp_push_reply layout: %s\n",
                      layout.reason.c_str());
         lastLoadFailure(F::af) = "unknown icmp_push_reply layout: " + layout.reason;
         return {};
      }
      TRACE(4, "icmp_push_reply layout {}", toString(layout.layout));
   }

   SkelPtr<F> skel(F::open());
   if (!skel) {
      // The skeleton's open has already freed what it built.
      reportLoadFailure(F::af, "Failed to open EBPF skeleton, errno {}: {}",
                        "IcmpErrResponder: Failed to open EBPF skeleton - errno ", errno,
                        "Failed to open EBPF skeleton");
      return {};
   }
   if (vrfMapSz != 0 && bpf_map__set_max_entries(skel->maps.namespace_filter_map, vrfMapSz) < 0) {
      reportLoadFailure(F::af, "Failed to set max entries for namespace_filter_map, errno {}:{}",
                        "Failed to set max entries for namespace_filter_map : ", errno,
                        "Failed to set max entries for namespace_filter_map");
      return {};
   }
   if (ringBufSz >= sizeof(packet_info) && atLeastOnePage &&
       bpf_map__set_max_entries(skel->maps.ringbuf, ringBufSz) < 0) {
      reportLoadFailure(F::af, F::ringSizeTrace,
                        "Failed to set max entries for ringbuf map: ", errno,
                        "Failed to set max entries for ringbuf map");
      return {};
   }
   setIcmpParamArg<F>(skel.get(), icmpParam);
   if (int err = F::load(skel.get()); err < 0) {
      reportLoadFailure(F::af, "Failed to load EBPF skeleton - err {}: {}",
                        "IcmpErrResponder: Failed to load EBPF skeleton - err ", err,
                        "IcmpErrResponder: Failed to load EBPF skeleton");
      return {};
   }
   if (int err = F::attach(skel.get()); err < 0) {
      reportLoadFailure(F::af, F::attachTrace,
                        "IcmpErrResponder: Failed to attach BPF skeleton - err ", err,
                        "IcmpErrResponder: Failed to attach BPF skeleton");
      return {};
   }
   int nsMapFd = bpf_map__fd(skel->maps.namespace_filter_map);
   TRACE(4, "ns_filter_map_fd returned: {}", nsMapFd);
   if (nsMapFd < 0) {
      reportLoadFailure(F::af, "Failed to get ns filter map fd, errno {}",
                        "IcmpErrResponder: Failed to get ns filter map fd, errno: ", errno,
                        "IcmpErrResponder: Failed to get ns filter map fd");
      return {};
   }
   int statsMapFd = bpf_map__fd(skel->maps.stats_map);
   TRACE(4, "stats_map_fd returned: {}", statsMapFd);
   if (statsMapFd < 0) {
      reportLoadFailure(F::af, "Failed to get stats map fd, errno {}", F::statsFdStderr, errno,
                        "Failed to get stats map fd");
      return {};
   }
   RingBufferPtr ringBuf(
       ring_buffer__new(bpf_map__fd(skel->maps.ringbuf), F::callback, ctx.get(), nullptr));
   if (!ringBuf) {
      reportLoadFailure(F::af, F::ringBufTrace,
                        "IcmpErrResponder:Failed to create ring buffer - errno ", errno,
                        "IcmpErrResponder:Failed to create ring buffer");
      return {};
   }
   int ringBufFd = ring_buffer__epoll_fd(ringBuf.get());
   if (ringBufFd < 0) {
      reportLoadFailure(F::af, "Failed to get rb epoll fd, errno {}: {}",
                        "IcmpErrResponder:Failed to get rb epoll fd - errno ", errno,
                        "Failed to get rb epoll fd");
      return {};
   }
   EbpfInitParams p;
   p.skel = skel.release();
   p.ringBuf = ringBuf.release();
   p.ringBufFd = ringBufFd;
   p.nsMapFd = nsMapFd;
   p.statsMapFd = statsMapFd;
   TRACE(4, "af: {} loaded, ringBufFd {} nsMapFd {} statsMapFd {}", F::af, ringBufFd, nsMapFd,
         statsMapFd);
   return p;
}

template <typename F>
void unloadFamily(const EbpfInitParams& params) {
   TRACE(4, "af: {} skel: {} ringBuf: {}", F::af, params.skel, static_cast<void*>(params.ringBuf));
   // The consumer goes first; destroying the skeleton detaches the probe and closes the maps.
   SkelPtr<F> skel(static_cast<typename F::Skel*>(params.skel));
   RingBufferPtr ringBuf(params.ringBuf);
}

int handleEvent(AddressFamily af, const char* name, uint32_t minDataLen, void* ctx, void* data,
                size_t size) {
   TRACE(7, "{} data: {} sz: {}", ctx, data, size);
   auto* context = static_cast<EbpfHandlerContext*>(ctx);
   const Ptr<ErrorResponderStats>& stats = context->stats();
   const auto* record = static_cast<const packet_info*>(data);
   // A datalen past the data array would send the processor outside the record.
   // Counted each; traced at a bounded rate, since traffic can make them at line rate.
   static RateLimit rejected[2] = {RateLimit(10), RateLimit(10)};
   auto reject = [&](AfCounterId id, const char* why) {
      stats->incrAfCounter(af, id);
      if (auto held = rejected[af == AddressFamily::ipv6 ? 1 : 0].allow(MonotonicClock().now()))
         TRACE(1, "{} record rejected: {} (size {}, datalen {}); {} more since the last report",
               name, why, size, size >= sizeof(packet_info) ? record->datalen : 0, *held);
      return 1;
   };
   if (size < sizeof(packet_info) || record->datalen > ICMP_DATA_MAX_SIZE)
      return reject(AfCounterId::invalidDataSize, "invalid data size");
   if (record->datalen < minDataLen)
      return reject(AfCounterId::insufficientDataLen, "insufficient data length");
   Ptr<EBPFIcmpPacketInfo> pktInfo = eBPFIcmpPacketInfoFactory(record);
   TRACE(7, "Enqueuing the pktInfo");
   stats->incrAfCounter(af, AfCounterId::pktInfoReceived);
   context->pktInfoInRegIs(pktInfo.get());
   context->pktInfoInRegClear();
   if (context->pktInfoProcessYieldStatus() == ProcessingState::yield) {
      TRACE(7, "yielding");
      return -1;
   }
   return 0;
}

}  // namespace

EbpfInitParams EbpfIpv4Helper::loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                                           const Ptr<EbpfHandlerContext>& ebpfHandlerContext) {
   return loadFamily<V4>(ebpfConfig, ebpfHandlerContext);
}

void EbpfIpv4Helper::unloadProgram(const EbpfInitParams& params) {
   unloadFamily<V4>(params);
}

EbpfInitParams EbpfIpv6Helper::loadProgram(const Ptr<EbpfConfig>& ebpfConfig,
                                           const Ptr<EbpfHandlerContext>& ebpfHandlerContext) {
   return loadFamily<V6>(ebpfConfig, ebpfHandlerContext);
}

void EbpfIpv6Helper::unloadProgram(const EbpfInitParams& params) {
   unloadFamily<V6>(params);
}

std::string EbpfIpv4Helper::lastLoadError() const {
   return lastLoadFailure(AddressFamily::ipv4);
}

std::string EbpfIpv6Helper::lastLoadError() const {
   return lastLoadFailure(AddressFamily::ipv6);
}

bool EbpfIpGenHelper::addToVrfMap(int32_t mapFd, NsInode nsInode) {
   TRACE(4, " mapFd: {} nsInode: {}", mapFd, nsInode);
   RAVEL_ASSERT(mapFd > 0);
   uint64_t key = nsInode;
   uint8_t one = 1;
   int err = bpf_map_update_elem(mapFd, &key, &one, BPF_ANY);
   if (err != 0) {
      // Typically a full map (more VRFs than its size): that namespace stays unfiltered-out.
      int e = errno;
      std::string text = libbpfErrorString(e);
      TRACE(1, "bpf_map_update_elem err: {} errno: {}", err, text);
      std::fprintf(stderr, "IcmpErrResponder: bpf_map_update_elem err: %d errno: %s\n", err,
                   text.c_str());
      return false;
   }
   return true;
}

void EbpfIpGenHelper::removeFromVrfMap(int32_t mapFd, NsInode nsInode) {
   TRACE(4, "mapFd: {} nsInode: {}", mapFd, nsInode);
   RAVEL_ASSERT(mapFd > 0);
   RAVEL_ASSERT(!!nsInode);
   uint64_t key = nsInode;
   uint8_t value = 0;
   if (bpf_map_lookup_elem(mapFd, &key, &value) != 0)
      return;
   if (bpf_map_delete_elem(mapFd, &key) < 0) {
      int e = errno;
      TRACE(1, "bpf_map_delete_elem failed errno: {}", e);
      if (e == ENOENT)
         return;
      std::string text = libbpfErrorString(e);
      TRACE(1, "bpf_map_delete_elem err: {} errno: {}", -e, text);
      std::fprintf(stderr, "IcmpErrResponder: bpf_map_delete_elem err: %d errno: %s\n", -e,
                   text.c_str());
   }
}

Ptr<EbpfHelperBase> ebpfIpv4HelperFactory() {
   return make<EbpfIpv4Helper>();
}

Ptr<EbpfHelperBase> ebpfIpv6HelperFactory() {
   return make<EbpfIpv6Helper>();
}

int handle_v4event(void* ctx, void* data, size_t size) {
   return handleEvent(AddressFamily::ipv4, "handle_v4event", 20, ctx, data, size);
}

int handle_v6event(void* ctx, void* data, size_t size) {
   return handleEvent(AddressFamily::ipv6, "handle_v6event", 40, ctx, data, size);
}

int EbpfIpGenHelper::consume(const EbpfInitParams& params) {
   RAVEL_ASSERT(params.ringBuf);
   return ring_buffer__consume(params.ringBuf);
}

bool EbpfIpGenHelper::kernelStats(const EbpfInitParams& params, EbpfKernelStats& out) const {
   int32_t statsMapFd = params.statsMapFd;
   uint32_t queued = QUEUED, dropped = DROPPED;
   if (bpf_map_lookup_elem(statsMapFd, &queued, &out.queued) != 0 ||
       bpf_map_lookup_elem(statsMapFd, &dropped, &out.dropped) != 0) {
      TRACE(1, "stats_map {} lookup failed: {}", statsMapFd, libbpfErrorString(errno));
      return false;
   }
   return true;
}

void EbpfIpGenHelper::kernelStatsClear(const EbpfInitParams& params) {
   uint64_t zero = 0;
   for (uint32_t key : {uint32_t(DROPPED), uint32_t(QUEUED)}) {
      if (bpf_map_update_elem(params.statsMapFd, &key, &zero, BPF_ANY) != 0) {
         TRACE(1, "stats_map {} clear failed: {}", params.statsMapFd, libbpfErrorString(errno));
         return;
      }
   }
}

std::string libbpfErrorString(int err) {
   char buf[1024];
   int r = libbpf_strerror(err, buf, sizeof(buf));
   if (r != 0)
      return fmt::format("got {} trying to get error string for {}", r, err);
   return buf;
}

}  // namespace Ravel::ErrorResponder
