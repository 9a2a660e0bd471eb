#include "error/datapath/NftKernelErrorFilter.h"

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "platform/core/Trace.h"
#include "platform/linux/SocketPam.h"

RAVEL_TRACE_CATEGORY("NftKernelErrorFilter");

namespace Ravel::ErrorResponder {

namespace {

constexpr const char* kChain = "output";
constexpr uint32_t kLiveSetId = 1;
// nftables' own id of the nf_proto type, so that `nft list` shows the set's keys as families.
constexpr uint32_t kNfProtoType = 2;
constexpr uint32_t kLoopbackIfIndex = 1;

std::string nsLabel(const std::string& nsPath) {
   return nsPath.empty() ? "own namespace" : nsPath;
}

// Identity of the namespace a path names now (0 when none): a namespace deleted and made again
// under the same name is another namespace.
ino_t namespaceId(const std::string& nsPath) {
   struct stat st {};
   return ::stat(nsPath.empty() ? "/proc/thread-self/ns/net" : nsPath.c_str(), &st) == 0 ? st.st_ino
                                                                                         : 0;
}

int openNetfilterSocket() {
   return ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
}

template <auto Free>
struct Freer {
   template <typename T>
   void operator()(T* p) const {
      Free(p);
   }
};
using Expr = std::unique_ptr<nftnl_expr, Freer<nftnl_expr_free>>;
using Rule = std::unique_ptr<nftnl_rule, Freer<nftnl_rule_free>>;
using Set = std::unique_ptr<nftnl_set, Freer<nftnl_set_free>>;
using Table = std::unique_ptr<nftnl_table, Freer<nftnl_table_free>>;
using Chain = std::unique_ptr<nftnl_chain, Freer<nftnl_chain_free>>;

// One nf_tables transaction: every message or none.
class Batch {
 public:
   explicit Batch(uint32_t& seq) : seq_(seq) {
      batch_ = mnl_nlmsg_batch_start(buf_.data(), buf_.size());
      nftnl_batch_begin(static_cast<char*>(mnl_nlmsg_batch_current(batch_)), seq_++);
      mnl_nlmsg_batch_next(batch_);
   }
   ~Batch() { mnl_nlmsg_batch_stop(batch_); }
   Batch(const Batch&) = delete;
   Batch& operator=(const Batch&) = delete;

   nlmsghdr* add(uint16_t type, uint16_t flags) {
      lastSeq_ = seq_;
      return nftnl_nlmsg_build_hdr(static_cast<char*>(mnl_nlmsg_batch_current(batch_)), type,
                                   NFPROTO_INET, flags | NLM_F_ACK, seq_++);
   }
   void next() { mnl_nlmsg_batch_next(batch_); }

   // Sends the batch and reads the kernel's answers; 0 or the first error's errno.
   int run(int sock) {
      nftnl_batch_end(static_cast<char*>(mnl_nlmsg_batch_current(batch_)), seq_++);
      mnl_nlmsg_batch_next(batch_);
      auto* head = static_cast<const char*>(mnl_nlmsg_batch_head(batch_));
      size_t size = mnl_nlmsg_batch_size(batch_);
      if (::send(sock, head, size, 0) != static_cast<ssize_t>(size))
         return errno ? errno : EIO;
      // Every message asked for an answer; the last one's ends the exchange.
      int firstError = 0;
      std::array<char, 8192> in;
      for (;;) {
         ssize_t n = ::recv(sock, in.data(), in.size(), 0);
         if (n < 0)
            return errno == EAGAIN ? ETIMEDOUT : errno;
         int len = static_cast<int>(n);
         for (auto* nlh = reinterpret_cast<const nlmsghdr*>(in.data()); mnl_nlmsg_ok(nlh, len);
              nlh = mnl_nlmsg_next(nlh, &len)) {
            if (nlh->nlmsg_type != NLMSG_ERROR)
               continue;
            auto* err = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
            if (err->error != 0 && firstError == 0)
               firstError = -err->error;
            if (nlh->nlmsg_seq == lastSeq_)
               return firstError;
         }
      }
   }

 private:
   std::array<char, 16384> buf_;
   mnl_nlmsg_batch* batch_;
   uint32_t& seq_;
   uint32_t lastSeq_ = 0;
};

Expr meta(uint32_t key, uint32_t reg = NFT_REG_1) {
   Expr e(nftnl_expr_alloc("meta"));
   nftnl_expr_set_u32(e.get(), NFTNL_EXPR_META_KEY, key);
   nftnl_expr_set_u32(e.get(), NFTNL_EXPR_META_DREG, reg);
   return e;
}

Expr cmp(uint32_t op, const void* data, uint32_t len) {
   Expr e(nftnl_expr_alloc("cmp"));
   nftnl_expr_set_u32(e.get(), NFTNL_EXPR_CMP_SREG, NFT_REG_1);
   nftnl_expr_set_u32(e.get(), NFTNL_EXPR_CMP_OP, op);
   nftnl_expr_set(e.get(), NFTNL_EXPR_CMP_DATA, data, len);
   return e;
}
Expr cmp8(uint32_t op, uint8_t v) {
   return cmp(op, &v, sizeof v);
}
Expr cmp32(uint32_t op, uint32_t v) {
   return cmp(op, &v, sizeof v);
}

// Locally generated errors of one ICMP type, unless the agent marked them, they go to a local
// sender (loopback: the kernel programs skip those) or their source is not ours to send from
// (the kernel's stand-in 192.0.0.8): dropped while the family is in the live set.
std::vector<Expr> dropRule(uint8_t nfproto, uint8_t l4proto, uint8_t type) {
   std::vector<Expr> r;
   r.push_back(meta(NFT_META_NFPROTO));
   r.push_back(cmp8(NFT_CMP_EQ, nfproto));
   Expr lookup(nftnl_expr_alloc("lookup"));
   nftnl_expr_set_u32(lookup.get(), NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
   nftnl_expr_set_str(lookup.get(), NFTNL_EXPR_LOOKUP_SET, NftKernelErrorFilter::kLiveSet);
   nftnl_expr_set_u32(lookup.get(), NFTNL_EXPR_LOOKUP_SET_ID, kLiveSetId);
   r.push_back(std::move(lookup));
   r.push_back(meta(NFT_META_L4PROTO));
   r.push_back(cmp8(NFT_CMP_EQ, l4proto));
   Expr payload(nftnl_expr_alloc("payload"));
   nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
   nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_BASE, NFT_PAYLOAD_TRANSPORT_HEADER);
   nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_OFFSET, 0);
   nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_LEN, 1);
   r.push_back(std::move(payload));
   r.push_back(cmp8(NFT_CMP_EQ, type));
   r.push_back(meta(NFT_META_MARK));
   r.push_back(cmp32(NFT_CMP_NEQ, kReplyMark));
   r.push_back(meta(NFT_META_OIF));
   r.push_back(cmp32(NFT_CMP_NEQ, kLoopbackIfIndex));
   Expr fib(nftnl_expr_alloc("fib"));
   nftnl_expr_set_u32(fib.get(), NFTNL_EXPR_FIB_FLAGS, NFTA_FIB_F_SADDR);
   nftnl_expr_set_u32(fib.get(), NFTNL_EXPR_FIB_RESULT, NFT_FIB_RESULT_ADDRTYPE);
   nftnl_expr_set_u32(fib.get(), NFTNL_EXPR_FIB_DREG, NFT_REG_1);
   r.push_back(std::move(fib));
   r.push_back(cmp32(NFT_CMP_EQ, RTN_LOCAL));
   r.push_back(Expr(nftnl_expr_alloc("counter")));
   Expr verdict(nftnl_expr_alloc("immediate"));
   nftnl_expr_set_u32(verdict.get(), NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
   nftnl_expr_set_u32(verdict.get(), NFTNL_EXPR_IMM_VERDICT, NF_DROP);
   r.push_back(std::move(verdict));
   return r;
}

// An error routed through a Linux VRF device passes the output hook twice: first leaving by the
// VRF device, then by the enslaved one. The kernel programs skip those errors, so the first pass
// marks them as ours and the drop rules let both passes through.
std::vector<Expr> vrfDeviceRule() {
   std::vector<Expr> r;
   r.push_back(meta(NFT_META_OIFKIND));
   std::array<char, IFNAMSIZ> kind{};
   std::memcpy(kind.data(), "vrf", 3);
   r.push_back(cmp(NFT_CMP_EQ, kind.data(), kind.size()));
   Expr value(nftnl_expr_alloc("immediate"));
   nftnl_expr_set_u32(value.get(), NFTNL_EXPR_IMM_DREG, NFT_REG_1);
   uint32_t mark = kReplyMark;
   nftnl_expr_set(value.get(), NFTNL_EXPR_IMM_DATA, &mark, sizeof mark);
   r.push_back(std::move(value));
   Expr set(nftnl_expr_alloc("meta"));
   nftnl_expr_set_u32(set.get(), NFTNL_EXPR_META_KEY, NFT_META_MARK);
   nftnl_expr_set_u32(set.get(), NFTNL_EXPR_META_SREG, NFT_REG_1);
   r.push_back(std::move(set));
   return r;
}

void addRule(Batch& b, std::vector<Expr> exprs) {
   Rule rule(nftnl_rule_alloc());
   nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, NftKernelErrorFilter::kTableName);
   nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, kChain);
   nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
   for (auto& e : exprs)
      nftnl_rule_add_expr(rule.get(), e.release());  // the rule owns it now
   nftnl_rule_nlmsg_build_payload(b.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND), rule.get());
   b.next();
}

// The whole table in one transaction: a table that exists is one that is complete.
void buildTable(Batch& b) {
   Table table(nftnl_table_alloc());
   nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, NftKernelErrorFilter::kTableName);
   nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
   nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
   nftnl_table_nlmsg_build_payload(b.add(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL), table.get());
   b.next();

   Set set(nftnl_set_alloc());
   nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, NftKernelErrorFilter::kTableName);
   nftnl_set_set_str(set.get(), NFTNL_SET_NAME, NftKernelErrorFilter::kLiveSet);
   nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
   nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, 1);
   nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, kNfProtoType);
   nftnl_set_set_u32(set.get(), NFTNL_SET_ID, kLiveSetId);
   nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_TIMEOUT);
   nftnl_set_nlmsg_build_payload(b.add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL), set.get());
   b.next();

   Chain chain(nftnl_chain_alloc());
   nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, NftKernelErrorFilter::kTableName);
   nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, kChain);
   nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, NFPROTO_INET);
   nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
   nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, NF_INET_LOCAL_OUT);
   nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, 0);
   nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
   nftnl_chain_nlmsg_build_payload(b.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL), chain.get());
   b.next();

   addRule(b, vrfDeviceRule());
   addRule(b, dropRule(NFPROTO_IPV4, IPPROTO_ICMP, 3));    // destination unreachable
   addRule(b, dropRule(NFPROTO_IPV4, IPPROTO_ICMP, 11));   // time exceeded
   addRule(b, dropRule(NFPROTO_IPV4, IPPROTO_ICMP, 12));   // parameter problem
   addRule(b, dropRule(NFPROTO_IPV6, IPPROTO_ICMPV6, 1));  // destination unreachable
   addRule(b, dropRule(NFPROTO_IPV6, IPPROTO_ICMPV6, 3));  // time exceeded
}

}  // namespace

NftKernelErrorFilter::NftKernelErrorFilter(SocketOpener opener, Scheduler& scheduler)
    : opener_(opener ? std::move(opener) : SocketOpener(openNetfilterSocket)),
      closeTask_(scheduler, "KernelErrorFilterClose", 5, [this] { closeReleased(); }) {}

NftKernelErrorFilter::~NftKernelErrorFilter() = default;

bool NftKernelErrorFilter::vrfIs(const VrfName& vrf, const std::string& nsPath) {
   auto it = vrfs_.find(vrf);
   if (it != vrfs_.end()) {
      if (it->second.nsPath == nsPath && it->second.nsId == namespaceId(nsPath))
         return true;
      // The old table goes with its socket, which also stops pinning a deleted namespace.
      vrfs_.erase(it);
   }
   Installed in{nsPath, 0, Fd()};
   int err = 0;
   try {
      // A netlink socket stays in the namespace it was opened in.
      inNamespace(nsPath, [&] {
         in.nsId = namespaceId("");
         in.sock.reset(opener_());
         err = in.sock ? 0 : errno;
      });
   } catch (const std::exception& e) {
      TRACE(1, "VRF {}: kernel error filter not installed in {}: {}", vrf.str(), nsLabel(nsPath),
            e.what());
      return false;
   }
   if (!err) {
      // Bounds a kernel that never answers; answers come at once.
      timeval limit{1, 0};
      ::setsockopt(in.sock.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      Batch b(seq_);
      buildTable(b);
      err = b.run(in.sock.get());
   }
   if (err) {
      // No nf_tables (EPROTONOSUPPORT), an old kernel refusing the owner flag, another owner of
      // the table (EEXIST, EPERM): the kernel's errors keep flowing.
      TRACE(1, "VRF {}: kernel error filter not installed in {}: {}", vrf.str(), nsLabel(nsPath),
            std::strerror(err));
      return false;
   }
   vrfs_.emplace(vrf, std::move(in));
   TRACE(3, "VRF {}: kernel error filter installed in {}", vrf.str(), nsLabel(nsPath));
   return true;
}

void NftKernelErrorFilter::vrfDel(const VrfName& vrf) {
   auto it = vrfs_.find(vrf);
   if (it == vrfs_.end())
      return;
   // Deleted at once, the socket closed later with the others removed meanwhile (see released_).
   // Should the delete fail, the close still removes the table.
   Batch b(seq_);
   Table table(nftnl_table_alloc());
   nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kTableName);
   nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
   nftnl_table_nlmsg_build_payload(b.add(NFT_MSG_DELTABLE, 0), table.get());
   b.next();
   if (int err = b.run(it->second.sock.get()))
      TRACE(1, "VRF {}: kernel error filter delete refused: {}", vrf.str(), std::strerror(err));
   released_.push_back(std::move(it->second.sock));
   vrfs_.erase(it);
   closeTask_.scheduleTask();
   TRACE(3, "VRF {}: kernel error filter removed", vrf.str());
}

bool NftKernelErrorFilter::liveIs(const VrfName& vrf, LiveFamilies live) {
   auto it = vrfs_.find(vrf);
   if (it == vrfs_.end())
      return false;
   // Flush and add in one transaction: adding an element that exists does not renew its
   // timeout on every kernel.
   Batch b(seq_);
   Set flush(nftnl_set_alloc());
   nftnl_set_set_str(flush.get(), NFTNL_SET_TABLE, kTableName);
   nftnl_set_set_str(flush.get(), NFTNL_SET_NAME, kLiveSet);
   nftnl_set_set_u32(flush.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
   nftnl_set_elems_nlmsg_build_payload(b.add(NFT_MSG_DELSETELEM, 0), flush.get());
   b.next();
   if (live.any()) {
      Set add(nftnl_set_alloc());
      nftnl_set_set_str(add.get(), NFTNL_SET_TABLE, kTableName);
      nftnl_set_set_str(add.get(), NFTNL_SET_NAME, kLiveSet);
      nftnl_set_set_u32(add.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
      for (auto [on, proto] : {std::pair{live.ipv4, uint8_t{NFPROTO_IPV4}},
                               std::pair{live.ipv6, uint8_t{NFPROTO_IPV6}}}) {
         if (!on)
            continue;
         nftnl_set_elem* e = nftnl_set_elem_alloc();
         nftnl_set_elem_set(e, NFTNL_SET_ELEM_KEY, &proto, sizeof proto);
         nftnl_set_elem_set_u64(e, NFTNL_SET_ELEM_TIMEOUT, kLiveTimeout.count());
         nftnl_set_elem_add(add.get(), e);  // the set owns it now
      }
      nftnl_set_elems_nlmsg_build_payload(b.add(NFT_MSG_NEWSETELEM, NLM_F_CREATE), add.get());
      b.next();
   }
   if (int err = b.run(it->second.sock.get())) {
      TRACE(1, "VRF {}: kernel error filter refresh refused: {}; filter removed", vrf.str(),
            std::strerror(err));
      vrfs_.erase(it);
      return false;
   }
   return true;
}

}  // namespace Ravel::ErrorResponder
