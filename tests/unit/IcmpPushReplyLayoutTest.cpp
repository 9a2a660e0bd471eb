#include <bpf/btf.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "error/datapath/IcmpPushReplyLayout.h"

namespace Ravel::ErrorResponder {
namespace {

using BtfPtr = std::unique_ptr<struct btf, void (*)(struct btf*)>;

struct Param {
   const char* name;
   const char* pointee;  // struct pointed to; nullptr: void *
   int depth = 1;        // pointer levels (struct rtable **rt is 2)
   bool constPointee = false;
   bool typedefPointee = false;  // points to a typedef of the struct
};

// A BTF with just `func`'s prototype and the structs it mentions, as a kernel would emit it.
BtfPtr makeBtf(const char* func, const std::vector<Param>& params) {
   BtfPtr b(btf__new_empty(), btf__free);
   EXPECT_NE(b.get(), nullptr);
   btf__add_int(b.get(), "int", 4, BTF_INT_SIGNED);
   std::map<std::string, int> structs;
   std::vector<int> types;
   for (const Param& p : params) {
      int t = 0;  // void
      if (p.pointee) {
         auto [it, added] = structs.try_emplace(p.pointee, 0);
         if (added)
            it->second = btf__add_struct(b.get(), p.pointee, 8);
         t = it->second;
         if (p.typedefPointee)
            t = btf__add_typedef(b.get(), (std::string(p.pointee) + "_t").c_str(), t);
         if (p.constPointee)
            t = btf__add_const(b.get(), t);
      }
      for (int i = 0; i < p.depth; ++i)
         t = btf__add_ptr(b.get(), t);
      EXPECT_GT(t, 0) << p.name;
      types.push_back(t);
   }
   const int proto = btf__add_func_proto(b.get(), 0);
   for (size_t i = 0; i < params.size(); ++i)
      EXPECT_EQ(btf__add_func_param(b.get(), params[i].name, types[i]), 0);
   EXPECT_GT(btf__add_func(b.get(), func, BTF_FUNC_STATIC, proto), 0);
   return b;
}

const Param kSk{"sk", "sock"};
const Param kIcmpParam{"icmp_param", "icmp_bxm"};
const Param kFl4{"fl4", "flowi4"};
const Param kIpc{"ipc", "ipcm_cookie"};
const Param kRt{"rt", "rtable", 2};

TEST(IcmpPushReplyLayout, FromPrototype) {
   using L = IcmpPushReplyLayout;
   struct Case {
      const char* what;
      const char* func;
      std::vector<Param> params;
      L expected;
   };
   const Case cases[] = {
       {"6.1: icmp_param first",
        "icmp_push_reply",
        {kIcmpParam, kFl4, kIpc, kRt},
        L::icmpParamFirst},
       {"6.18: ICMP socket first",
        "icmp_push_reply",
        {kSk, kIcmpParam, kFl4, kIpc, kRt},
        L::sockFirst},
       {"qualified and typedef'd pointees are the same structs",
        "icmp_push_reply",
        {{"sk", "sock", 1, false, true},
         {"icmp_param", "icmp_bxm", 1, true},
         kFl4,
         {"ipc", "ipcm_cookie", 1, false, true}},
        L::sockFirst},
       {"types decide over names",
        "icmp_push_reply",
        {{"a", "icmp_bxm"}, {"b", "flowi4"}, {"icmp_param", "ipcm_cookie"}},
        L::icmpParamFirst},
       {"names decide when pointers are untyped",
        "icmp_push_reply",
        {{"icmp_param", nullptr}, {"fl4", nullptr}, {"ipc", nullptr}},
        L::icmpParamFirst},
       {"function not in BTF (inlined)", "icmp_reply", {kIcmpParam, kFl4, kIpc}, L::unknown},
       {"no icmp_bxm argument", "icmp_push_reply", {kSk, kFl4, kIpc}, L::unknown},
       {"flowi4 and cookie not after icmp_param",
        "icmp_push_reply",
        {kIcmpParam, kIpc, kFl4},
        L::unknown},
       {"cookie missing", "icmp_push_reply", {kSk, kIcmpParam, kFl4}, L::unknown},
       {"unknown leading argument",
        "icmp_push_reply",
        {{"net", "net"}, kIcmpParam, kFl4, kIpc, kRt},
        L::unknown},
       {"two leading arguments", "icmp_push_reply", {kSk, kSk, kIcmpParam, kFl4, kIpc}, L::unknown},
       {"a pointer to a pointer is not icmp_param, whatever its name",
        "icmp_push_reply",
        {{"icmp_param", "icmp_bxm", 2}, kFl4, kIpc},
        L::unknown},
       {"names do not override a struct type",
        "icmp_push_reply",
        {{"icmp_param", "sk_buff"}, kFl4, kIpc},
        L::unknown},
   };
   for (const Case& c : cases) {
      BtfPtr b = makeBtf(c.func, c.params);
      const IcmpPushReplyLayoutResult r = icmpPushReplyLayout(b.get());
      EXPECT_EQ(r.layout, c.expected) << c.what << ": " << r.reason;
      EXPECT_EQ(r.reason.empty(), c.expected != L::unknown) << c.what << ": " << r.reason;
   }
   EXPECT_EQ(icmpPushReplyLayout(static_cast<const struct btf*>(nullptr)).layout, L::unknown);
   EXPECT_EQ(icmpParamArg(L::icmpParamFirst), 0);
   EXPECT_EQ(icmpParamArg(L::sockFirst), 1);
   EXPECT_EQ(icmpParamArg(L::unknown), -1);
}

TEST(IcmpPushReplyLayout, FromFile) {
   BtfPtr b = makeBtf("icmp_push_reply", {kIcmpParam, kFl4, kIpc, kRt});
   uint32_t size = 0;
   const void* raw = btf__raw_data(b.get(), &size);
   ASSERT_NE(raw, nullptr);
   char path[] = "/tmp/ravel-btf-XXXXXX";
   const int fd = mkstemp(path);
   ASSERT_GE(fd, 0);
   ASSERT_EQ(write(fd, raw, size), static_cast<ssize_t>(size));
   close(fd);
   const IcmpPushReplyLayoutResult fromFile = icmpPushReplyLayout(std::string(path));
   unlink(path);
   EXPECT_EQ(fromFile.layout, IcmpPushReplyLayout::icmpParamFirst) << fromFile.reason;

   const IcmpPushReplyLayoutResult missing = icmpPushReplyLayout(std::string(path));
   EXPECT_EQ(missing.layout, IcmpPushReplyLayout::unknown);
   EXPECT_NE(missing.reason.find(path), std::string::npos) << missing.reason;
}

// The running kernel's BTF is world-readable; without it the loader cannot run at all.
TEST(IcmpPushReplyLayout, RunningKernel) {
   const char* vmlinux = "/sys/kernel/btf/vmlinux";
   if (access(vmlinux, R_OK) != 0)
      GTEST_SKIP() << vmlinux << " not readable";
   const IcmpPushReplyLayoutResult fromPath = icmpPushReplyLayout(std::string(vmlinux));
   const IcmpPushReplyLayoutResult fromDefault = icmpPushReplyLayout();
   ASSERT_NE(fromPath.layout, IcmpPushReplyLayout::unknown) << fromPath.reason;
   EXPECT_EQ(fromDefault.layout, fromPath.layout) << fromDefault.reason;
   RecordProperty("layout", toString(fromPath.layout));

   // The two kernels the prototype is known for; others only need to be recognised.
   utsname u{};
   uname(&u);
   int major = 0, minor = 0;
   std::sscanf(u.release, "%d.%d", &major, &minor);
   if (major == 6 && minor == 1) {
      EXPECT_EQ(fromPath.layout, IcmpPushReplyLayout::icmpParamFirst) << u.release;
   }
   if (major > 6 || (major == 6 && minor >= 18)) {
      EXPECT_EQ(fromPath.layout, IcmpPushReplyLayout::sockFirst) << u.release;
   }
}

}  // namespace
}  // namespace Ravel::ErrorResponder
