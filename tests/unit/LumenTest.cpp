#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/core/Lumen.h"

namespace Ravel {
namespace {

namespace fs = std::filesystem;
using Sizes = std::vector<uint32_t>;

struct LumenTest : ::testing::Test {
   fs::path dir = fs::temp_directory_path() / ("ravel-lumen-" + std::to_string(getpid()));
   LumenTest() {
      fs::remove_all(dir);
      setenv("LUMENDIR", (dir / "sub").c_str(), 1);  // created on demand
   }
   ~LumenTest() override {
      lumen::shutdown();
      unsetenv("LUMENDIR");
      fs::remove_all(dir);
   }
   static std::vector<std::string> tags(const std::vector<lumen::Record>& recs) {
      std::vector<std::string> out;
      for (auto& r : recs)
         out.push_back(std::to_string(r.level) + ":" + r.message);
      return out;
   }
   static std::string slurp(const std::string& path) {
      std::ifstream f(path, std::ios::binary);
      return {std::istreambuf_iterator<char>(f), {}};
   }
   static void spit(const std::string& path, const std::string& data) {
      std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
   }
};

TEST_F(LumenTest, RecordsRoundTripAndReinitializeReplacesTheFile) {
   Sizes sizes = {4, 0, 4};  // level 1 off; levels past the list are off too
   double before = static_cast<double>(std::time(nullptr));
   ASSERT_TRUE(lumen::initialize("T-%d.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   std::string first = lumen::filePath();
   EXPECT_EQ(first, (dir / "sub" / ("T-" + std::to_string(getpid()) + ".lmn")).string());
   for (int level : {0, 1, 2, 3, 9, -1, 10})
      lumen::record(level, "Cat", "fn", "at " + std::to_string(level));
   lumen::record(2, std::string(300, 'k'), "", "");  // over-long names are cut, not wrapped

   auto recs = lumen::readFile(first);
   ASSERT_EQ(tags(recs), (std::vector<std::string>{"0:at 0", "2:at 2", "2:"}));
   EXPECT_EQ(recs[1].category, "Cat");
   EXPECT_EQ(recs[1].func, "fn");
   EXPECT_LT(recs[0].seq, recs[1].seq);
   EXPECT_GE(recs[0].timestamp, before);
   EXPECT_LE(recs[0].timestamp, static_cast<double>(std::time(nullptr)) + 1);
   EXPECT_EQ(recs[2].category, std::string(255, 'k'));

   ASSERT_TRUE(lumen::initialize("Second.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   lumen::record(0, "Cat", "fn", "second");
   EXPECT_EQ(tags(lumen::readFile(lumen::filePath())), std::vector<std::string>{"0:second"});
   EXPECT_EQ(lumen::readFile(first).size(), 3u);
   lumen::shutdown();
   EXPECT_FALSE(lumen::active());
   EXPECT_EQ(lumen::filePath(), "");
   lumen::record(0, "Cat", "fn", "after shutdown");  // ignored

   setenv("LUMENDIR", first.c_str(), 1);  // a file, not a directory
   EXPECT_FALSE(lumen::initialize("T.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   EXPECT_FALSE(lumen::active());
}

TEST_F(LumenTest, RingsKeepTheNewestOfEachLevelInGlobalOrder) {
   Sizes sizes = {0, 0, 1, 0, 0, 2, 0, 0};  // 1 KiB and 2 KiB rings; level 7 off
   ASSERT_TRUE(lumen::initialize("Wrap.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   std::vector<std::string> written;  // in write order
   std::mt19937 rng(7);
   for (int i = 0; i < 1500; ++i) {
      int level = std::vector<int>{2, 5, 5, 7}[rng() % 4];
      // Lengths vary so entries end at every alignment and laps end in pads.
      std::string msg = std::to_string(i) + "-" + std::string(rng() % 150, 'a' + level);
      lumen::record(level, "Cat", "func", msg);
      written.push_back(std::to_string(level) + ":" + msg);
      if (i % 37 != 36)
         continue;
      auto got = tags(lumen::readFile(lumen::filePath()));
      // Expected: per level, the newest records back to the oldest one still held.
      std::map<char, size_t> kept;
      for (auto& t : got)
         ++kept[t[0]];
      std::vector<std::string> want;
      std::map<char, size_t> seen;
      for (auto it = written.rbegin(); it != written.rend(); ++it) {
         if (seen[(*it)[0]]++ < kept[(*it)[0]])
            want.insert(want.begin(), *it);
      }
      ASSERT_EQ(got, want) << "after " << i + 1 << " records";
      EXPECT_EQ(kept['7'], 0u);
      if (i > 200) {  // both rings have wrapped; a ring keeps most of its capacity
         EXPECT_GE(kept['2'], 3u);
         EXPECT_GE(kept['5'], 8u);
      }
   }
}

TEST_F(LumenTest, LongMessagesAreCut) {
   struct Case {
      int maxMessage;
      uint32_t ringKiB;
      std::string msg;
      size_t minKept, maxKept;
   } cases[] = {
       {16, 1, std::string(100, 'a'), 16, 16},
       {16, 1, std::string(16, 'b'), 16, 16},
       {512, 4, std::string(3000, 'c'), 512, 512},
       {0, 1, std::string(3000, 'd'), 900, 1024},  // no limit: as much as the ring holds
       {5, 1, "abcd\xc3\xa9", 4, 4},               // never half a UTF-8 character
       {6, 1, "abcd\xc3\xa9", 6, 6},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.msg.substr(0, 8) + " max " + std::to_string(c.maxMessage));
      Sizes sizes = {c.ringKiB};
      ASSERT_TRUE(lumen::initialize("Cut.lmn", sizes, nullptr, 0, 24, 0, true, c.maxMessage));
      lumen::record(0, "Cat", "f", c.msg);
      auto recs = lumen::readFile(lumen::filePath());
      ASSERT_EQ(recs.size(), 1u);
      EXPECT_EQ(recs[0].message, c.msg.substr(0, recs[0].message.size()));
      EXPECT_GE(recs[0].message.size(), c.minKept);
      EXPECT_LE(recs[0].message.size(), c.maxKept);
   }
}

TEST_F(LumenTest, RejectsFilesThatAreNotRingFiles) {
   Sizes sizes = {1};
   ASSERT_TRUE(lumen::initialize("Real.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   std::string real = slurp(lumen::filePath());
   fs::create_directories(dir);
   for (std::string contents : {std::string(8192, 'z'), std::string("short"), std::string(),
                                real.substr(0, 100), "X" + real.substr(1)}) {
      std::string path = (dir / "bogus").string();
      spit(path, contents);
      try {
         lumen::readFile(path);
         ADD_FAILURE() << "accepted " << contents.size() << " bytes";
      } catch (const std::runtime_error& e) {
         EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
      }
   }
   EXPECT_THROW(lumen::readFile((dir / "missing").string()), std::runtime_error);
}

TEST_F(LumenTest, DamagedRecordsAreSkippedNotMisread) {
   Sizes sizes = {0, 0, 0, 4};
   ASSERT_TRUE(lumen::initialize("Damage.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   for (int i = 0; i < 20; ++i)
      lumen::record(3, "Cat", "f", "rec-" + std::to_string(100 + i) + std::string(i * 3, '.'));
   std::string path = lumen::filePath();
   lumen::shutdown();
   const std::string pristine = slurp(path);
   auto at = [&](const std::string& data, int i) {
      return data.find("rec-" + std::to_string(100 + i));
   };
   struct Case {
      const char* name;
      std::function<void(std::string&)> damage;
      std::set<int> lost;
   } cases[] = {
       {"torn final record",
        [&](std::string& d) { d.replace(at(d, 19) + 30, 30, 30, '\0'); },
        {19}},
       {"scribbled middle record",
        [&](std::string& d) { d.replace(at(d, 7) - 20, 20, 20, 'Q'); },
        {7}},
       {"one flipped bit", [&](std::string& d) { d[at(d, 12) + 2] ^= 4; }, {12}},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.name);
      std::string data = pristine;
      c.damage(data);
      spit(path, data);
      std::vector<std::string> want;
      for (int i = 0; i < 20; ++i) {
         if (!c.lost.count(i))
            want.push_back("3:rec-" + std::to_string(100 + i) + std::string(i * 3, '.'));
      }
      EXPECT_EQ(tags(lumen::readFile(path)), want);
   }

   // Random damage anywhere past the magic: never a crash, a duplicate or an invented record.
   spit(path, pristine);
   std::map<uint64_t, std::string> genuine;
   for (auto& r : lumen::readFile(path))
      genuine[r.seq] = r.message;
   // Aim at the file header and at the records, where damage can mislead.
   size_t first = at(pristine, 0) - 64, span = at(pristine, 19) + 128 - first;
   std::mt19937 rng(11);
   for (int round = 0; round < 500; ++round) {
      std::string data = pristine;
      for (int n = 1 + rng() % 8; n > 0; --n) {
         size_t pos = rng() % 2 ? 8 + rng() % 504 : first + rng() % span;
         data[pos] ^= static_cast<char>(1 + rng() % 255);
      }
      spit(path, data);
      std::vector<lumen::Record> recs;
      try {
         recs = lumen::readFile(path);
      } catch (const std::runtime_error&) {
         continue;  // a damaged file header may be refused outright
      }
      std::set<uint64_t> seqs;
      for (auto& r : recs) {
         EXPECT_TRUE(genuine.count(r.seq) && genuine[r.seq] == r.message) << "round " << round;
         EXPECT_TRUE(seqs.insert(r.seq).second) << "round " << round;
      }
   }
}

TEST_F(LumenTest, RecordsSurviveTheProcessDying) {
   struct Case {
      const char* name;
      void (*die)();
      bool signaled;
   } cases[] = {
       {"abort", [] { std::abort(); }, true},
       {"_exit", [] { _exit(3); }, false},
       {"SIGKILL", [] { raise(SIGKILL); }, true},
   };
   for (auto& c : cases) {
      SCOPED_TRACE(c.name);
      pid_t child = fork();
      if (child == 0) {
         Sizes sizes = {1, 0, 0, 0, 0, 0, 8};
         if (!lumen::initialize("Crash-%d.lmn", sizes, nullptr, 0, 24, 0, true, 512))
            _exit(90);
         for (int i = 0; i < 100; ++i)
            lumen::record(i % 2 ? 6 : 0, "PamSm", "run", "packet " + std::to_string(i));
         lumen::record(0, "Ravel", "main", "last words");
         c.die();
         _exit(91);
      }
      int st = 0;
      ASSERT_EQ(waitpid(child, &st, 0), child);
      ASSERT_EQ(WIFSIGNALED(st), c.signaled) << st;
      auto recs =
          lumen::readFile((dir / "sub" / ("Crash-" + std::to_string(child) + ".lmn")).string());
      ASSERT_GT(recs.size(), 50u);  // level 0 wrapped, level 6 kept all 50
      EXPECT_EQ(recs.back().message, "last words");
      EXPECT_EQ(recs[recs.size() - 2].message, "packet 99");
      EXPECT_EQ(recs[recs.size() - 2].level, 6);
   }
}

TEST_F(LumenTest, FormatIsOneLineWithMicroseconds) {
   auto line = [](double ts, const char* msg) {
      return lumen::formatRecord({4, 1, ts, "PamSm", "handle", msg});
   };
   std::string a = line(1700000000.1234567, "a\nb");
   EXPECT_EQ(a.substr(a.find('.')), ".123457 4 PamSm handle: a\\x0ab");
   // Rounding up carries into the seconds.
   std::string carried = line(1700000000.9999998, "");
   EXPECT_EQ(carried, line(1700000001.0, ""));
   EXPECT_NE(carried.find(".000000 4"), std::string::npos);
}

}  // namespace
}  // namespace Ravel
