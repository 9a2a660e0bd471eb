#include <gtest/gtest.h>

#include "platform/core/Notifier.h"
#include "platform/store/Entity.h"

namespace Ravel {
namespace {

TEST(Notifier, ObserverRemovedDuringDeliveryIsNotCalled) {
   Notifier<int> n;
   std::vector<std::string> calls;
   Subscription second;
   auto first = n.subscribe([&](int v) {
      calls.push_back("first " + std::to_string(v));
      second.reset();
   });
   second = n.subscribe([&](int v) { calls.push_back("second " + std::to_string(v)); });
   n.notify(1);
   n.notify(2);
   EXPECT_EQ(calls, (std::vector<std::string>{"first 1", "first 2"}));
}

TEST(Notifier, ObserverAddedDuringDeliveryStartsWithNextNotification) {
   Notifier<> n;
   int late = 0;
   Subscription lateSub;
   auto s = n.subscribe([&] {
      if (!lateSub.active())
         lateSub = n.subscribe([&] { ++late; });
   });
   n.notify();
   EXPECT_EQ(late, 0);
   n.notify();
   EXPECT_EQ(late, 1);
}

TEST(Notifier, SubscriptionOutlivingNotifierIsHarmless) {
   Subscription s;
   {
      Notifier<> n;
      s = n.subscribe([] {});
      EXPECT_EQ(n.observerCount(), 1u);
   }
   EXPECT_FALSE(s.active());
   s.reset();
}

TEST(Notifier, ObserverMayDestroyTheNotifierOwner) {
   struct Owner {
      Notifier<> n;
   };
   auto* owner = new Owner;
   int calls = 0;
   auto s1 = owner->n.subscribe([&] {
      ++calls;
      delete owner;
   });
   owner->n.notify();
   EXPECT_EQ(calls, 1);
}

TEST(Collection, NotifiesOnlyOnChange) {
   Collection<std::string, int> c;
   std::vector<std::string> keys;
   auto s = c.subscribe([&](const std::string& k) { keys.push_back(k); });
   struct Step {
      const char* op;
      const char* key;
      int value;
      bool notified;
   };
   const Step steps[] = {
       {"is", "a", 1, true},   {"is", "a", 1, false}, {"is", "a", 2, true},
       {"del", "b", 0, false}, {"is", "b", 3, true},  {"del", "a", 0, true},
   };
   for (auto& st : steps) {
      size_t before = keys.size();
      if (std::string(st.op) == "is") {
         c.is(st.key, st.value);
      } else {
         c.del(st.key);
      }
      EXPECT_EQ(keys.size() - before, st.notified ? 1u : 0u) << st.op << " " << st.key;
      if (st.notified) {
         EXPECT_EQ(keys.back(), st.key);
      }
   }
   c.delAll();
   EXPECT_TRUE(c.empty());
   EXPECT_EQ(keys.back(), "b");
}

TEST(Attr, NotifiesOnlyOnChange) {
   Attr<int> a;
   int calls = 0;
   auto s = a.subscribe([&] { ++calls; });
   a.set(0);
   a.set(5);
   a.set(5);
   a.set(6);
   EXPECT_EQ(calls, 2);
   s.reset();
   a.set(7);
   EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace Ravel
