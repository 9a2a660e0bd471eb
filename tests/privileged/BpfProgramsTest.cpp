// Opens and loads the ICMP probe programs: the kernel's verifier checks them. Needs root.
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "IcmpPktInfo.h"
#include "error/datapath/IcmpPushReplyLayout.h"
#include "icmp6_kprobe_ebpf.skel.h"
#include "icmp_kprobe_ebpf.skel.h"
#include "tests/privileged/Host.h"

namespace Ravel::ErrorResponder {
namespace {

using test::kernelHasKprobes;

// Either family's skeleton behind one face. `icmpParamArg` < 0: the IPv6 object, which has no
// layout constant.
struct Skeleton {
   const char* name = nullptr;  // the skeleton's; libbpf keeps 15 characters of it as the object's
   bpf_object* obj = nullptr;
   bpf_program* prog = nullptr;
   std::function<int()> load;
   std::function<int()> attach;
   std::function<void()> destroy;
   size_t elfSize = 0;
   ~Skeleton() {
      if (destroy)
         destroy();
   }
   bpf_map* map(const char* name) const { return bpf_object__find_map_by_name(obj, name); }
};

std::unique_ptr<Skeleton> openV4(int icmpParamArg) {
   auto s = std::make_unique<Skeleton>();
   icmp_kprobe_ebpf* skel = icmp_kprobe_ebpf__open();
   if (!skel)
      return nullptr;
   skel->rodata->icmp_param_arg = icmpParamArg;
   s->name = skel->skeleton->name;
   s->obj = skel->obj;
   s->prog = skel->progs.kprobe_icmp_push_reply;
   s->load = [skel] { return icmp_kprobe_ebpf__load(skel); };
   s->attach = [skel] { return icmp_kprobe_ebpf__attach(skel); };
   s->destroy = [skel] { icmp_kprobe_ebpf__destroy(skel); };
   icmp_kprobe_ebpf__elf_bytes(&s->elfSize);
   return s;
}

std::unique_ptr<Skeleton> openV6() {
   auto s = std::make_unique<Skeleton>();
   icmp6_kprobe_ebpf* skel = icmp6_kprobe_ebpf__open();
   if (!skel)
      return nullptr;
   s->name = skel->skeleton->name;
   s->obj = skel->obj;
   s->prog = skel->progs.kprobe_icmpv6_route_lookup;
   s->load = [skel] { return icmp6_kprobe_ebpf__load(skel); };
   s->attach = [skel] { return icmp6_kprobe_ebpf__attach(skel); };
   s->destroy = [skel] { icmp6_kprobe_ebpf__destroy(skel); };
   icmp6_kprobe_ebpf__elf_bytes(&s->elfSize);
   return s;
}

struct Variant {
   const char* what;
   std::function<std::unique_ptr<Skeleton>()> open;
   const char* object;
   const char* program;
   const char* section;
   const char* rodata;
};

const Variant kVariants[] = {
    {"IPv4, icmp_param first", [] { return openV4(0); }, "icmp_kprobe_ebpf",
     "kprobe_icmp_push_reply", "kprobe/icmp_push_reply", "icmp_kpr.rodata"},
    {"IPv4, ICMP socket first", [] { return openV4(1); }, "icmp_kprobe_ebpf",
     "kprobe_icmp_push_reply", "kprobe/icmp_push_reply", "icmp_kpr.rodata"},
    {"IPv6", openV6, "icmp6_kprobe_ebpf", "kprobe_icmpv6_route_lookup",
     "kprobe/icmpv6_route_lookup", "icmp6_kp.rodata"},
};

class BpfPrograms : public ::testing::Test {
 protected:
   void SetUp() override {
      if (geteuid() != 0)
         GTEST_SKIP() << "needs root";
   }
};

bpf_map_info mapInfo(const bpf_map* map) {
   bpf_map_info info{};
   uint32_t len = sizeof(info);
   EXPECT_EQ(bpf_obj_get_info_by_fd(bpf_map__fd(map), &info, &len), 0) << bpf_map__name(map);
   return info;
}

TEST_F(BpfPrograms, VerifierAcceptsEveryVariant) {
   const uint32_t ringSize = 1 << 20;
   const uint32_t filterSize = 7;
   for (const Variant& v : kVariants) {
      SCOPED_TRACE(v.what);
      auto s = v.open();
      ASSERT_TRUE(s) << std::strerror(errno);
      ASSERT_EQ(bpf_map__set_max_entries(s->map("ringbuf"), ringSize), 0);
      ASSERT_EQ(bpf_map__set_max_entries(s->map("namespace_filter_map"), filterSize), 0);
      const int err = s->load();
      ASSERT_EQ(err, 0) << "load: " << std::strerror(-err);

      bpf_prog_info prog{};
      uint32_t len = sizeof(prog);
      ASSERT_EQ(bpf_obj_get_info_by_fd(bpf_program__fd(s->prog), &prog, &len), 0);
      EXPECT_TRUE(prog.gpl_compatible);
      std::cout << v.what << ": object " << s->elfSize << " bytes, " << prog.xlated_prog_len / 8
                << " instructions, " << prog.verified_insns << " verified\n";

      EXPECT_EQ(mapInfo(s->map("ringbuf")).max_entries, ringSize);
      EXPECT_EQ(mapInfo(s->map("namespace_filter_map")).max_entries, filterSize);

      // The agent writes (inode, 1) per enabled namespace; the filter holds what it was sized for.
      const int nsFd = bpf_map__fd(s->map("namespace_filter_map"));
      const uint8_t one = 1;
      for (uint64_t inode = 4026531840; inode < 4026531840 + filterSize; ++inode)
         EXPECT_EQ(bpf_map_update_elem(nsFd, &inode, &one, BPF_ANY), 0) << inode;
      const uint64_t extra = 1;
      EXPECT_NE(bpf_map_update_elem(nsFd, &extra, &one, BPF_ANY), 0);
      EXPECT_EQ(errno, E2BIG);

      const int statsFd = bpf_map__fd(s->map("stats_map"));
      for (uint32_t index : {uint32_t(DROPPED), uint32_t(QUEUED)}) {
         uint64_t count = 99;
         EXPECT_EQ(bpf_map_lookup_elem(statsFd, &index, &count), 0) << index;
         EXPECT_EQ(count, 0u) << index;
      }
   }
}

// The kernel wants a ring of a power-of-two number of pages; libbpf rounds any other size up
// to one, so a configured size never fails the load. A filter the kernel refuses does.
TEST_F(BpfPrograms, MapSizesAsTheKernelGetsThem) {
   const uint32_t page = static_cast<uint32_t>(sysconf(_SC_PAGESIZE));
   struct Case {
      const char* map;
      uint32_t size;
      uint32_t loaded;  // 0: the load fails
   };
   const Case cases[] = {
       {"ringbuf", page, page}, {"ringbuf", 3 * page, 4 * page}, {"ringbuf", page + 1, 2 * page},
       {"ringbuf", 1075, page}, {"namespace_filter_map", 1, 1},  {"namespace_filter_map", 0, 0},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.map) + " " + std::to_string(c.size));
      auto s = openV6();
      ASSERT_TRUE(s);
      ASSERT_EQ(bpf_map__set_max_entries(s->map(c.map), c.size), 0);
      const int err = s->load();
      if (c.loaded) {
         ASSERT_EQ(err, 0) << std::strerror(-err);
         EXPECT_EQ(mapInfo(s->map(c.map)).max_entries, c.loaded);
      } else {
         EXPECT_LT(err, 0);
      }
   }
}

// With the layout the running kernel's BTF calls for. A kernel without kprobes refuses the
// attachment: an error code, after which the skeleton is destroyed as usual.
TEST_F(BpfPrograms, AttachesOrReportsAnError) {
   const IcmpPushReplyLayoutResult layout = icmpPushReplyLayout();
   ASSERT_NE(layout.layout, IcmpPushReplyLayout::unknown) << layout.reason;
   const bool kprobes = kernelHasKprobes();
   for (auto& open : std::vector<std::function<std::unique_ptr<Skeleton>()>>{
            [&] { return openV4(icmpParamArg(layout.layout)); }, openV6}) {
      auto s = open();
      ASSERT_TRUE(s);
      ASSERT_EQ(s->load(), 0);
      const int err = s->attach();
      SCOPED_TRACE(bpf_program__name(s->prog));
      if (kprobes) {
         EXPECT_EQ(err, 0) << std::strerror(-err);
      } else {
         EXPECT_LT(err, 0);
         std::cout << bpf_program__name(s->prog) << ": attach " << err << " ("
                   << std::strerror(-err) << ")\n";
      }
   }
}

}  // namespace
}  // namespace Ravel::ErrorResponder
