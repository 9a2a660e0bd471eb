#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/Lumen.h"

namespace Ravel {
namespace {

struct LumenTest : ::testing::Test {
   std::filesystem::path dir =
       std::filesystem::temp_directory_path() / ("ravel-lumen-" + std::to_string(getpid()));
   LumenTest() {
      std::filesystem::create_directories(dir);
      setenv("LUMENDIR", dir.c_str(), 1);
   }
   ~LumenTest() override {
      lumen::shutdown();
      unsetenv("LUMENDIR");
      std::filesystem::remove_all(dir);
   }
};

TEST_F(LumenTest, RingsKeepTheNewestPerLevelInGlobalOrder) {
   // Level 1: 1 KiB = two 512-byte slots; level 2: off; level 3: 4 KiB.
   const uint32_t sizes[lumen::kLevels] = {0, 1, 0, 4, 0, 0, 0, 0, 0, 0};
   ASSERT_TRUE(lumen::initialize("T-%d.lmn", sizes, nullptr, 0, 24, 0, true, 512));
   std::string path = lumen::filePath();
   EXPECT_EQ(path, (dir / ("T-" + std::to_string(getpid()) + ".lmn")).string());
   for (int i = 0; i < 5; ++i) {
      lumen::record(1, "Cat", "f", "one " + std::to_string(i));
      lumen::record(2, "Cat", "f", "dropped");
      lumen::record(3, "Cat", "g", "three " + std::to_string(i));
   }
   lumen::record(3, "Cat", "g", std::string(2000, 'x'));  // cut to what a slot holds
   auto recs = lumen::readFile(path);
   std::vector<std::string> got;
   for (auto& r : recs)
      got.push_back(std::to_string(r.level) + ":" + r.message.substr(0, 7));
   // Level 1 kept its two newest; level 2 recorded nothing; all merged by sequence.
   EXPECT_EQ(got, (std::vector<std::string>{"3:three 0", "3:three 1", "3:three 2", "1:one 3",
                                            "3:three 3", "1:one 4", "3:three 4", "3:xxxxxxx"}));
   EXPECT_LT(recs.back().message.size(), 512u);
   EXPECT_GT(recs.back().message.size(), 400u);
}

TEST_F(LumenTest, SurvivesACrashAndSkipsATornSlot) {
   const uint32_t sizes[lumen::kLevels] = {4, 4, 4, 4, 4, 4, 4, 4, 4, 4};
   std::string path = (dir / "Crash.lmn").string();
   pid_t child = fork();
   if (child == 0) {
      lumen::initialize("Crash.lmn", sizes, nullptr, 0, 24, 0, true, 512);
      lumen::record(0, "Ravel", "main", "before the crash");
      lumen::record(5, "PamSm", "run", "detail");
      std::abort();
   }
   int st = 0;
   waitpid(child, &st, 0);
   ASSERT_TRUE(WIFSIGNALED(st));
   auto recs = lumen::readFile(path);
   ASSERT_EQ(recs.size(), 2u);
   EXPECT_EQ(recs[0].message, "before the crash");
   EXPECT_EQ(recs[1].category, "PamSm");
   EXPECT_NE(lumen::formatRecord(recs[0]).find(" 0 Ravel main: before the crash"),
             std::string::npos);

   // Tear the second record's commit word: the reader skips it, keeps the rest.
   {
      std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
      // Header 4096 bytes, levels 0-4 hold 8 slots each before level 5.
      f.seekp(4096 + 5 * 8 * 512 + 4);
      uint32_t junk = 0x12345678;
      f.write(reinterpret_cast<char*>(&junk), 4);
   }
   recs = lumen::readFile(path);
   ASSERT_EQ(recs.size(), 1u);
   EXPECT_EQ(recs[0].message, "before the crash");
}

TEST_F(LumenTest, RejectsFilesThatAreNotRingFiles) {
   std::string bogus = (dir / "bogus").string();
   std::ofstream(bogus) << std::string(8192, 'z');
   EXPECT_THROW(lumen::readFile(bogus), std::runtime_error);
   std::ofstream(bogus, std::ios::trunc) << "short";
   EXPECT_THROW(lumen::readFile(bogus), std::runtime_error);
   EXPECT_THROW(lumen::readFile((dir / "missing").string()), std::runtime_error);
}

}  // namespace
}  // namespace Ravel
