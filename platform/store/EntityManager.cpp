#include "platform/store/EntityManager.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fmt/format.h>

#include "platform/core/Trace.h"

RAVEL_TRACE_CATEGORY("EntityManager");

namespace Ravel {

namespace {
std::map<std::string, EntityTypeRegistry::Factory>& types() {
   static std::map<std::string, EntityTypeRegistry::Factory> t;
   return t;
}
}  // namespace

bool EntityTypeRegistry::add(const std::string& typeName, Factory f) {
   types()[typeName] = std::move(f);
   return true;
}

Ptr<Entity> EntityTypeRegistry::create(const std::string& typeName) {
   auto it = types().find(typeName);
   return it == types().end() ? nullptr : it->second();
}

bool EntityTypeRegistry::has(const std::string& typeName) {
   return types().count(typeName) != 0;
}

const char* toString(MountStatus s) {
   return s == MountStatus::ok ? "ok" : "failed";
}

std::vector<MountRequest> parseMountProfile(const std::string& file) {
   std::ifstream in(file);
   if (!in)
      throw std::runtime_error(fmt::format("{}: cannot open mount profile", file));
   std::vector<MountRequest> out;
   std::string line;
   for (int lineNo = 1; std::getline(in, line); ++lineNo) {
      if (auto hash = line.find('#'); hash != std::string::npos)
         line.erase(hash);
      std::istringstream ls(line);
      std::vector<std::string> words;
      for (std::string w; ls >> w;)
         words.push_back(w);
      if (words.empty())
         continue;
      bool ok = (words.size() == 3 || (words.size() == 4 && words[3] == "shared")) &&
                (words[2] == "r" || words[2] == "w");
      if (!ok) {
         throw std::runtime_error(
             fmt::format("{}:{}: expected \"path type r|w [shared]\"", file, lineNo));
      }
      out.push_back({words[0], words[1], words[2] == "w" ? MountMode::write : MountMode::read,
                     words.size() == 4});
   }
   return out;
}

void MountGroup::close(bool, const std::string&, Seconds) {
   closed_ = true;
}

Ptr<Entity> EntityManager::entity(const std::string& path) const {
   auto it = entities_.find(path);
   return it == entities_.end() ? nullptr : it->second;
}

void EntityManager::entityIs(const std::string& path, Ptr<Entity> e) {
   entities_[path] = e;
}

void EntityManager::entityDel(const std::string& path) {
   entities_.erase(path);
}

Ptr<Entity> EntityManager::mount(const std::string& path, const std::string& type) {
   if (auto e = entity(path)) {
      if (type == e->typeName())
         return e;
      TRACE(0, "{} holds {}, not {}", path, e->typeName(), type);
      return nullptr;
   }
   auto e = EntityTypeRegistry::create(type);
   if (!e) {
      TRACE(0, "unknown entity type {} for {}", type, path);
      return nullptr;
   }
   entities_[path] = e;
   TRACE(4, "mounted {} at {}", type, path);
   return e;
}

Ptr<Entity> EntityManager::sharedTableMount(const std::string& path, const std::string& type,
                                            int kind) {
   TRACE(4, "shared table {} kind {}", path, kind);
   return mount(path, type);
}

Ptr<MountGroup> EntityManager::mountGroupIs(CAgent* mounter) {
   auto g = make<MountGroup>(mounter);
   groups_.push_back(g);
   return g;
}

MountStatus EntityManager::performMounts(const std::string& profileDir) {
   MountStatus status = MountStatus::ok;
   for (auto& g : groups_) {
      if (!g->closed())
         continue;
      for (auto& name : g->profiles()) {
         std::vector<MountRequest> reqs;
         try {
            reqs = parseMountProfile(profileDir + "/" + name);
         } catch (const std::exception& e) {
            TRACE(0, "{}", e.what());
            status = MountStatus::failed;
            continue;
         }
         for (auto& r : reqs) {
            if (r.path.find("%s") != std::string::npos)
               continue;
            if (!mount(r.path, r.type))
               status = MountStatus::failed;
         }
      }
   }
   return status;
}

}  // namespace Ravel
