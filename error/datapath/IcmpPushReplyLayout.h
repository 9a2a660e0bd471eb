#pragma once

#include <string>

// libbpf's BTF handle; only the loader side sees its definition.
struct btf;

namespace Ravel::ErrorResponder {

// Argument order of the kernel's icmp_push_reply, which the IPv4 probe reads from registers.
// Kernels have taken (icmp_param, fl4, ipc, rt) and later (sk, icmp_param, fl4, ipc, rt).
enum class IcmpPushReplyLayout { unknown, icmpParamFirst, sockFirst };
const char* toString(IcmpPushReplyLayout layout);

struct IcmpPushReplyLayoutResult {
   IcmpPushReplyLayout layout = IcmpPushReplyLayout::unknown;
   std::string reason;  // why the layout is unknown; empty otherwise
};

// Reads the layout from the prototype of the FUNC icmp_push_reply in `btf`: the pointee structs
// of its parameters (icmp_bxm, flowi4, ipcm_cookie, sock), and the parameter names where a
// parameter is not a pointer to a named struct. Never from the kernel version.
IcmpPushReplyLayoutResult icmpPushReplyLayout(const struct btf* btf);
// The same from a BTF file (raw or ELF); an empty path means the running kernel's BTF.
IcmpPushReplyLayoutResult icmpPushReplyLayout(const std::string& btfPath = {});

// Value for the IPv4 program's icmp_param_arg constant: the index of icmp_param among the probed
// function's arguments, or -1 when the program cannot be used.
constexpr int icmpParamArg(IcmpPushReplyLayout layout) {
   switch (layout) {
      case IcmpPushReplyLayout::icmpParamFirst:
         return 0;
      case IcmpPushReplyLayout::sockFirst:
         return 1;
      case IcmpPushReplyLayout::unknown:
         break;
   }
   return -1;
}

}  // namespace Ravel::ErrorResponder
