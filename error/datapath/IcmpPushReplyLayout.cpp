#include "error/datapath/IcmpPushReplyLayout.h"

#include <bpf/btf.h>
#include <bpf/libbpf.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include <fmt/format.h>

namespace Ravel::ErrorResponder {

namespace {

enum class Role { other, sock, icmpParam, fl4, cookie };

const char* roleName(Role role) {
   switch (role) {
      case Role::sock:
         return "sock";
      case Role::icmpParam:
         return "icmp_param";
      case Role::fl4:
         return "fl4";
      case Role::cookie:
         return "ipc";
      case Role::other:
         break;
   }
   return "other";
}

const btf_type* skipModsAndTypedefs(const struct btf* btf, uint32_t id) {
   const btf_type* t = btf__type_by_id(btf, id);
   while (t && (btf_is_mod(t) || btf_is_typedef(t)))
      t = btf__type_by_id(btf, t->type);
   return t;
}

// What a parameter points to: `name` is the struct's name; `untyped` is set for void * and
// pointers to anonymous structs, whose type says nothing.
struct Pointee {
   bool untyped = false;
   std::string name;
};

Pointee pointeeOf(const struct btf* btf, uint32_t typeId) {
   const btf_type* t = skipModsAndTypedefs(btf, typeId);
   if (!t || !btf_is_ptr(t))
      return {};
   if (t->type == 0)
      return {true, {}};
   t = skipModsAndTypedefs(btf, t->type);
   if (!t || !(btf_is_composite(t) || btf_is_fwd(t)))
      return {};
   const char* name = btf__name_by_offset(btf, t->name_off);
   if (!name || !*name)
      return {true, {}};
   return {false, name};
}

// Types decide; names only where the type says nothing.
Role roleOf(const struct btf* btf, const btf_param& param) {
   const Pointee pointee = pointeeOf(btf, param.type);
   std::string name = pointee.name;
   if (pointee.untyped) {
      const char* n = btf__name_by_offset(btf, param.name_off);
      name = n ? n : "";
   }
   if (name == "sock" || (pointee.untyped && name == "sk"))
      return Role::sock;
   if (name == "icmp_bxm" || (pointee.untyped && name == "icmp_param"))
      return Role::icmpParam;
   if (name == "flowi4" || (pointee.untyped && name == "fl4"))
      return Role::fl4;
   if (name == "ipcm_cookie" || (pointee.untyped && name == "ipc"))
      return Role::cookie;
   return Role::other;
}

IcmpPushReplyLayoutResult unknown(std::string reason) {
   return {IcmpPushReplyLayout::unknown, std::move(reason)};
}

}  // namespace

const char* toString(IcmpPushReplyLayout layout) {
   switch (layout) {
      case IcmpPushReplyLayout::icmpParamFirst:
         return "icmpParamFirst";
      case IcmpPushReplyLayout::sockFirst:
         return "sockFirst";
      case IcmpPushReplyLayout::unknown:
         break;
   }
   return "unknown";
}

IcmpPushReplyLayoutResult icmpPushReplyLayout(const struct btf* btf) {
   if (!btf)
      return unknown("no BTF");
   const int funcId = btf__find_by_name_kind(btf, "icmp_push_reply", BTF_KIND_FUNC);
   if (funcId < 0)
      return unknown("no FUNC icmp_push_reply in BTF");
   const btf_type* proto = btf__type_by_id(btf, btf__type_by_id(btf, funcId)->type);
   if (!proto || !btf_is_func_proto(proto))
      return unknown("icmp_push_reply has no FUNC_PROTO");

   std::vector<Role> roles;
   const btf_param* params = btf_params(proto);
   for (uint16_t i = 0; i < btf_vlen(proto); ++i)
      roles.push_back(roleOf(btf, params[i]));

   std::string seen;
   for (Role r : roles)
      seen += std::string(seen.empty() ? "" : ", ") + roleName(r);
   const auto at = [&](size_t i, Role r) { return i < roles.size() && roles[i] == r; };

   // The probe reads icmp_param, fl4 and the cookie as three consecutive register arguments.
   size_t first = 0;
   while (first < roles.size() && roles[first] != Role::icmpParam)
      ++first;
   if (first == roles.size())
      return unknown(fmt::format("icmp_push_reply({}) has no icmp_bxm argument", seen));
   if (!at(first + 1, Role::fl4) || !at(first + 2, Role::cookie))
      return unknown(
          fmt::format("icmp_push_reply({}): icmp_param is not followed by fl4 and ipc", seen));
   if (first == 0)
      return {IcmpPushReplyLayout::icmpParamFirst, {}};
   if (first == 1 && at(0, Role::sock))
      return {IcmpPushReplyLayout::sockFirst, {}};
   return unknown(fmt::format("icmp_push_reply({}): unexpected leading arguments", seen));
}

IcmpPushReplyLayoutResult icmpPushReplyLayout(const std::string& btfPath) {
   errno = 0;
   struct btf* raw =
       btfPath.empty() ? btf__load_vmlinux_btf() : btf__parse(btfPath.c_str(), nullptr);
   if (!raw) {
      const int err = errno;
      return unknown(fmt::format("cannot read BTF {}: {}",
                                 btfPath.empty() ? "of the running kernel" : btfPath,
                                 std::strerror(err)));
   }
   std::unique_ptr<struct btf, void (*)(struct btf*)> owned(raw, btf__free);
   return icmpPushReplyLayout(owned.get());
}

}  // namespace Ravel::ErrorResponder
