#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/core/Clock.h"
#include "platform/store/Entity.h"

namespace Ravel {

class CAgent;

enum class MountMode { read, write };
enum class MountStatus { ok = 0, failed = 1 };
const char* toString(MountStatus s);

struct MountRequest {
   std::string path;  // may hold one "%s", filled per namespace by the provider
   std::string type;
   MountMode mode = MountMode::read;
   bool sharedTable = false;
};

// Parses a mount profile: one mount a line, "path type r|w [shared]"; '#' starts a comment.
// Throws std::runtime_error naming the file and line on a malformed line.
std::vector<MountRequest> parseMountProfile(const std::string& file);

class MountGroup : public Node {
 public:
   explicit MountGroup(CAgent* mounter) : mounter_(mounter) {}
   CAgent* mounter() const { return mounter_; }
   void profileIs(const std::string& name) { profiles_.push_back(name); }
   const std::vector<std::string>& profiles() const { return profiles_; }
   // The framework mounts once the group is closed.
   void close(bool blocking, const std::string& name, Seconds timeout);
   bool closed() const { return closed_; }

 private:
   CAgent* mounter_;
   std::vector<std::string> profiles_;
   bool closed_ = false;
};

// The state store: typed entities by path. A wrong type reads as absent.
class EntityManager : public Node {
 public:
   Ptr<Entity> entity(const std::string& path) const;
   template <typename T>
   Ptr<T> entityAs(const std::string& path) const {
      return ptrCast<T>(entity(path));
   }
   void entityIs(const std::string& path, Ptr<Entity> e);
   void entityDel(const std::string& path);
   const std::map<std::string, Ptr<Entity>>& entities() const { return entities_; }

   // Makes the entity at `path` exist with type `type`: an existing entity of that type is kept,
   // an absent one is created through the type registry. Returns null (and mounts nothing) for
   // an unknown type or a path that holds another type.
   Ptr<Entity> mount(const std::string& path, const std::string& type);
   // The in-process stand-in of a shared-memory table mount; same contract as mount(). The
   // kind (the table's type value) is recorded for dumps only.
   Ptr<Entity> sharedTableMount(const std::string& path, const std::string& type, int kind);

   Ptr<MountGroup> mountGroupIs(CAgent* mounter);
   // Mounts every request of the closed groups' profiles, read from `profileDir`/<name>.
   // Paths with "%s" are per-namespace and left to the providers that know the namespaces.
   MountStatus performMounts(const std::string& profileDir);

 private:
   std::map<std::string, Ptr<Entity>> entities_;
   std::vector<Ptr<MountGroup>> groups_;
};

}  // namespace Ravel
