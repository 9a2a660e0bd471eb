#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Ring-file trace recorder. Each trace level has a fixed-size ring inside one memory-mapped
// file; the file is written in place, so what was recorded survives a crash of the process.
namespace Ravel::lumen {

constexpr int kLevels = 10;

// `nameTemplate` may contain one "%d", replaced by the process id. The directory is $LUMENDIR
// when set, otherwise kDefaultDir. `ringSizesKiB` gives each level's ring size in KiB.
// The remaining arguments are accepted for the framework's signature: an alternate name
// (unused when null), a reserved integer, the record-header size hint, the threading mode
// (0: single writer), whether to truncate an existing file, and the longest message kept.
// Returns false (and leaves the recorder inactive) when the file cannot be created.
bool initialize(const std::string& nameTemplate, std::span<const uint32_t> ringSizesKiB,
                const char* altName, int reserved, int headerHint, int threadingMode, bool truncate,
                int maxMessage);
constexpr const char* kDefaultDir = "/var/log/ravel";

bool active();
std::string filePath();  // empty when inactive
void record(int level, std::string_view category, std::string_view func, std::string_view msg);
void shutdown();

struct Record {
   int level;
   uint64_t seq;      // global order across levels
   double timestamp;  // CLOCK_REALTIME seconds
   std::string category;
   std::string func;
   std::string message;
};

// Reads every record still held in a ring file, oldest first (by seq). Throws
// std::runtime_error naming the file when it is not a Lumen file.
std::vector<Record> readFile(const std::string& path);

// One line: local time with microseconds, level, category, function and message.
std::string formatRecord(const Record& r);

}  // namespace Ravel::lumen
