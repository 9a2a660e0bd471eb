#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "platform/core/Notifier.h"
#include "platform/core/Ptr.h"

namespace Ravel {

// A typed object of the state store. Types register a name so that a mount profile can ask
// for "Interface::AllIntfStatusDir" at a path and get one.
class Entity : public Node {
 public:
   virtual const char* typeName() const = 0;
};

class EntityTypeRegistry {
 public:
   using Factory = std::function<Ptr<Entity>()>;
   static bool add(const std::string& typeName, Factory f);
   static Ptr<Entity> create(const std::string& typeName);  // null for an unknown type
   static bool has(const std::string& typeName);
};

#define RAVEL_ENTITY_TYPE(Cls, Name)              \
 public:                                          \
   static constexpr const char* kTypeName = Name; \
   const char* typeName() const override {        \
      return Name;                                \
   }                                              \
                                                  \
 private:

// Registers Cls with the type registry; place once in a .cpp of the platform library.
#define RAVEL_REGISTER_ENTITY(Cls)                                                              \
   [[maybe_unused]] static const bool ravelRegistered_##Cls = ::Ravel::EntityTypeRegistry::add( \
       Cls::kTypeName, [] { return ::Ravel::Ptr<::Ravel::Entity>(new Cls()); })

// A scalar attribute that notifies its observers when, and only when, its value changes.
template <typename T>
class Attr {
 public:
   Attr() = default;
   explicit Attr(T v) : v_(std::move(v)) {}
   const T& operator()() const { return v_; }
   bool set(const T& v) {
      if (v == v_)
         return false;
      v_ = v;
      notifier_.notify();
      return true;
   }
   [[nodiscard]] Subscription subscribe(std::function<void()> fn) const {
      return notifier_.subscribe(std::move(fn));
   }

 private:
   T v_{};
   Notifier<> notifier_;
};

// A keyed collection that notifies with the key when, and only when, an entry is added,
// replaced by a different value, or removed. Iteration is in key order.
template <typename K, typename V>
class Collection {
 public:
   using Map = std::map<K, V>;

   bool is(const K& k, V v) {
      auto it = m_.find(k);
      if (it != m_.end()) {
         if (it->second == v)
            return false;
         it->second = std::move(v);
      } else {
         m_.emplace(k, std::move(v));
      }
      notifier_.notify(k);
      return true;
   }
   bool del(const K& k) {
      auto it = m_.find(k);
      if (it == m_.end())
         return false;
      K key = it->first;  // `k` may refer to the entry being erased
      m_.erase(it);
      notifier_.notify(key);
      return true;
   }
   void delAll() {
      while (!m_.empty())
         del(m_.begin()->first);
   }
   bool has(const K& k) const { return m_.count(k) != 0; }
   // The value or a default-constructed one (null for pointers).
   V get(const K& k) const {
      auto it = m_.find(k);
      return it == m_.end() ? V{} : it->second;
   }
   const V* find(const K& k) const {
      auto it = m_.find(k);
      return it == m_.end() ? nullptr : &it->second;
   }
   size_t size() const { return m_.size(); }
   bool empty() const { return m_.empty(); }
   typename Map::const_iterator begin() const { return m_.begin(); }
   typename Map::const_iterator end() const { return m_.end(); }
   const Map& map() const { return m_; }

   [[nodiscard]] Subscription subscribe(std::function<void(const K&)> fn) const {
      return notifier_.subscribe(std::move(fn));
   }

 private:
   Map m_;
   Notifier<const K&> notifier_;
};

// A set with the same notification rule.
template <typename K>
class NotifyingSet {
 public:
   bool is(const K& k) {
      if (!s_.emplace(k, true).second)
         return false;
      notifier_.notify(k);
      return true;
   }
   bool del(const K& k) {
      auto it = s_.find(k);
      if (it == s_.end())
         return false;
      K key = it->first;  // `k` may refer to the entry being erased
      s_.erase(it);
      notifier_.notify(key);
      return true;
   }
   void delAll() {
      while (!s_.empty())
         del(s_.begin()->first);
   }
   bool has(const K& k) const { return s_.count(k) != 0; }
   size_t size() const { return s_.size(); }
   bool empty() const { return s_.empty(); }
   struct Iter {
      typename std::map<K, bool>::const_iterator it;
      const K& operator*() const { return it->first; }
      Iter& operator++() {
         ++it;
         return *this;
      }
      bool operator==(const Iter&) const = default;
   };
   Iter begin() const { return {s_.begin()}; }
   Iter end() const { return {s_.end()}; }
   [[nodiscard]] Subscription subscribe(std::function<void(const K&)> fn) const {
      return notifier_.subscribe(std::move(fn));
   }

 private:
   std::map<K, bool> s_;
   Notifier<const K&> notifier_;
};

}  // namespace Ravel
