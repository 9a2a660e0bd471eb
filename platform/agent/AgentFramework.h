#pragma once

#include <cstdarg>
#include <cstdint>
#include <map>
#include <string>

#include "platform/store/Entity.h"
#include "platform/store/EntityManager.h"

namespace Ravel {

// Output of a state dump: printf-style writes to the requesting client's socket.
class DumpContext {
 public:
   static constexpr uint32_t kDefaultEntryLimit = 100;
   // Verbosity defaults to what the client asked for in the current request.
   explicit DumpContext(int fd);
   DumpContext(int fd, bool verbose, uint32_t entryLimit = kDefaultEntryLimit);

   int fd() const { return fd_; }
   bool verbose() const { return verbose_; }
   uint32_t entryLimit() const { return entryLimit_; }
   bool wasTruncated() const { return wasTruncated_; }
   void wasTruncatedIs(bool v) { wasTruncated_ = v; }
   void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
   int fd_;
   bool verbose_;
   uint32_t entryLimit_;
   bool wasTruncated_ = false;
};

// Writes all of `text` to a (blocking) descriptor; a client that went away is ignored.
void writeAll(int fd, std::string_view text);

// A command an agent serves. The handler writes its reply straight to the client's socket.
class AgentCommandCallback : public Node {
 public:
   AgentCommandCallback(std::string agentName, std::string commandName)
       : agentName_(std::move(agentName)), commandName_(std::move(commandName)) {}
   virtual void handleCommand(unsigned socketFd, const std::string& command) = 0;

   const std::string& agentName() const { return agentName_; }
   // The name clients address the callback by; also what the debug registry records.
   const std::string& name() const { return commandName_; }
   Node* parent() const { return parent_; }
   void parentIs(Node* p) { parent_ = p; }

 private:
   std::string agentName_;
   std::string commandName_;
   Node* parent_ = nullptr;
};

// The registry of command callbacks, by command name.
class AgentCommandRequestDirSm : public Node {
 public:
   void callbackIs(Ptr<AgentCommandCallback> cb) { callbacks_[cb->name()] = cb; }
   void callbackDel(const std::string& name) { callbacks_.erase(name); }
   Ptr<AgentCommandCallback> callback(const std::string& name) const;
   const std::map<std::string, Ptr<AgentCommandCallback>>& callbacks() const { return callbacks_; }

   // Dispatches one request line "[-v ]<callback name> <command>" and returns false when no
   // callback has that name (after writing an error line to the client).
   bool dispatch(int fd, const std::string& request);
   static bool requestVerbose();

 private:
   std::map<std::string, Ptr<AgentCommandCallback>> callbacks_;
};

// "agent/debug/registry/<agent>": how the debug dump of an agent is reached.
class ShowDebug : public Entity {
   RAVEL_ENTITY_TYPE(ShowDebug, "Agent::ShowDebug")
 public:
   Attr<std::string> commandType;
};

// The framework's agent object. The hosting daemon creates one for the plug-in and hands it to
// the plug-in's factory, whose agent copies it as its base.
class CAgent : public Node {
 public:
   CAgent(std::string name, Ptr<EntityManager> em, Ptr<AgentCommandRequestDirSm> commands);
   explicit CAgent(CAgent* framework);

   const std::string& name() const { return name_; }
   const Ptr<EntityManager>& entityManager() const { return em_; }
   const Ptr<AgentCommandRequestDirSm>& agentCommandRequestDirSm() const { return commands_; }

   virtual void doInit() {}
   virtual void doMountsComplete(MountStatus, Ptr<EntityManager>) {}

   // Creates (or returns) an entity owned by this agent at `path`.
   Ptr<Entity> localEntityIs(const std::string& name, const std::string& type,
                             const std::string& path);
   void localEntitiesCreatedIs(bool v) { localEntitiesCreated_ = v; }
   bool localEntitiesCreated() const { return localEntitiesCreated_; }

 private:
   std::string name_;
   Ptr<EntityManager> em_;
   Ptr<AgentCommandRequestDirSm> commands_;
   bool localEntitiesCreated_ = false;
};

// Signature of the plug-in's exported factory.
using AgentFactoryFn = Ptr<CAgent> (*)(CAgent*);
constexpr const char* kAgentFactorySymbol = "agentFactory";

}  // namespace Ravel
