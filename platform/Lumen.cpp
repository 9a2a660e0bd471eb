#include "platform/Lumen.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <fmt/format.h>

// File layout: a 4 KiB header, then for each level a ring of fixed 512-byte slots. A record
// goes to slot (per-level counter % slots). Each slot carries a commit word written last, so
// a slot torn by a crash in mid-write is recognised and skipped by the reader. Fixed slots
// keep the write path to one bounded memcpy with no allocation and no system call.

namespace Ravel::lumen {

namespace {

constexpr char kMagic[8] = {'L', 'U', 'M', 'E', 'N', 'v', '1', '\0'};
constexpr uint32_t kSlotMagic = 0x4c4d5331;  // "LMS1"
constexpr size_t kHeaderSize = 4096;
constexpr size_t kSlotSize = 512;
constexpr size_t kMaxCategory = 32;
constexpr size_t kMaxFunc = 48;

struct FileHeader {
   char magic[8];
   uint32_t slotSize;
   uint32_t levels;
   uint32_t slots[kLevels];
   uint64_t offset[kLevels];
   uint64_t next[kLevels];
   uint64_t seq;
};
static_assert(sizeof(FileHeader) <= kHeaderSize);

struct SlotHeader {
   uint32_t magic;
   uint32_t commit;  // ~(uint32)seq once the slot is complete
   uint64_t seq;
   double timestamp;
   uint8_t level;
   uint8_t catLen;
   uint8_t funcLen;
   uint8_t reserved;
   uint16_t msgLen;
   uint16_t reserved2;
};
static_assert(sizeof(SlotHeader) == 32);
constexpr size_t kTextSpace = kSlotSize - sizeof(SlotHeader);

struct State {
   int fd = -1;
   uint8_t* base = nullptr;
   size_t size = 0;
   size_t maxMessage = kTextSpace;
   std::string path;
};
State gState;

FileHeader* header() {
   return reinterpret_cast<FileHeader*>(gState.base);
}

double realNow() {
   timespec ts{};
   clock_gettime(CLOCK_REALTIME, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

bool initialize(const std::string& nameTemplate, std::span<const uint32_t> ringSizesKiB,
                const char* altName, int, int, int, bool, int maxMessage) {
   shutdown();
   std::string name = altName ? altName : nameTemplate;
   if (auto pos = name.find("%d"); pos != std::string::npos) {
      name.replace(pos, 2, std::to_string(getpid()));
   }
   const char* dirEnv = std::getenv("LUMENDIR");
   std::string dir = dirEnv && *dirEnv ? dirEnv : kDefaultDir;
   std::error_code ec;
   std::filesystem::create_directories(dir, ec);
   std::string path = dir + "/" + name;

   FileHeader h{};
   std::memcpy(h.magic, kMagic, sizeof kMagic);
   h.slotSize = kSlotSize;
   h.levels = kLevels;
   uint64_t off = kHeaderSize;
   for (int l = 0; l < kLevels; ++l) {
      uint32_t kib = l < static_cast<int>(ringSizesKiB.size()) ? ringSizesKiB[l] : 0;
      h.slots[l] = static_cast<uint32_t>(uint64_t{kib} * 1024 / kSlotSize);
      h.offset[l] = off;
      off += uint64_t{h.slots[l]} * kSlotSize;
   }
   int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd < 0)
      return false;
   if (::ftruncate(fd, static_cast<off_t>(off)) != 0) {
      ::close(fd);
      return false;
   }
   void* m = ::mmap(nullptr, off, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   if (m == MAP_FAILED) {
      ::close(fd);
      return false;
   }
   gState.fd = fd;
   gState.base = static_cast<uint8_t*>(m);
   gState.size = off;
   gState.path = path;
   gState.maxMessage = maxMessage > 0 ? std::min<size_t>(maxMessage, kTextSpace) : kTextSpace;
   std::memcpy(gState.base, &h, sizeof h);
   return true;
}

bool active() {
   return gState.base != nullptr;
}
std::string filePath() {
   return gState.path;
}

void record(int level, std::string_view category, std::string_view func, std::string_view msg) {
   if (!gState.base || level < 0 || level >= kLevels)
      return;
   FileHeader* h = header();
   if (h->slots[level] == 0)
      return;
   uint64_t seq = ++h->seq;
   uint64_t idx = h->next[level]++ % h->slots[level];
   uint8_t* slot = gState.base + h->offset[level] + idx * kSlotSize;
   auto* sh = reinterpret_cast<SlotHeader*>(slot);
   sh->commit = 0;
   std::atomic_signal_fence(std::memory_order_seq_cst);
   size_t catLen = std::min(category.size(), kMaxCategory);
   size_t funcLen = std::min(func.size(), kMaxFunc);
   size_t msgLen = std::min(msg.size(), std::min(gState.maxMessage, kTextSpace - catLen - funcLen));
   sh->magic = kSlotMagic;
   sh->seq = seq;
   sh->timestamp = realNow();
   sh->level = static_cast<uint8_t>(level);
   sh->catLen = static_cast<uint8_t>(catLen);
   sh->funcLen = static_cast<uint8_t>(funcLen);
   sh->msgLen = static_cast<uint16_t>(msgLen);
   uint8_t* text = slot + sizeof(SlotHeader);
   std::memcpy(text, category.data(), catLen);
   std::memcpy(text + catLen, func.data(), funcLen);
   std::memcpy(text + catLen + funcLen, msg.data(), msgLen);
   std::atomic_signal_fence(std::memory_order_seq_cst);
   sh->commit = ~static_cast<uint32_t>(seq);
}

void shutdown() {
   if (gState.base)
      ::munmap(gState.base, gState.size);
   if (gState.fd >= 0)
      ::close(gState.fd);
   gState = State{};
}

std::vector<Record> readFile(const std::string& path) {
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0)
      throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
   struct stat st {};
   ::fstat(fd, &st);
   size_t size = static_cast<size_t>(st.st_size);
   auto notLumen = [&] {
      return std::runtime_error(fmt::format("{}: not a Lumen trace file", path));
   };
   if (size < kHeaderSize) {
      ::close(fd);
      throw notLumen();
   }
   void* m = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
   ::close(fd);
   if (m == MAP_FAILED)
      throw std::runtime_error(fmt::format("{}: cannot map", path));
   const auto* base = static_cast<const uint8_t*>(m);
   FileHeader h;
   std::memcpy(&h, base, sizeof h);
   std::vector<Record> out;
   bool ok = std::memcmp(h.magic, kMagic, sizeof kMagic) == 0 && h.slotSize == kSlotSize &&
             h.levels == kLevels;
   for (int l = 0; ok && l < kLevels; ++l) {
      if (h.offset[l] + uint64_t{h.slots[l]} * kSlotSize > size)
         ok = false;
   }
   if (!ok) {
      ::munmap(m, size);
      throw notLumen();
   }
   for (int l = 0; l < kLevels; ++l) {
      for (uint32_t i = 0; i < h.slots[l]; ++i) {
         const uint8_t* slot = base + h.offset[l] + uint64_t{i} * kSlotSize;
         SlotHeader sh;
         std::memcpy(&sh, slot, sizeof sh);
         if (sh.magic != kSlotMagic || sh.commit != ~static_cast<uint32_t>(sh.seq) ||
             sh.level != l || size_t{sh.catLen} + sh.funcLen + sh.msgLen > kTextSpace) {
            continue;
         }
         const char* text = reinterpret_cast<const char*>(slot + sizeof sh);
         out.push_back({l, sh.seq, sh.timestamp, std::string(text, sh.catLen),
                        std::string(text + sh.catLen, sh.funcLen),
                        std::string(text + sh.catLen + sh.funcLen, sh.msgLen)});
      }
   }
   ::munmap(m, size);
   std::sort(out.begin(), out.end(), [](auto& a, auto& b) { return a.seq < b.seq; });
   return out;
}

std::string formatRecord(const Record& r) {
   time_t secs = static_cast<time_t>(r.timestamp);
   tm t{};
   localtime_r(&secs, &t);
   char ts[32];
   std::strftime(ts, sizeof ts, "%Y-%m-%d %H:%M:%S", &t);
   auto usec = static_cast<long>((r.timestamp - static_cast<double>(secs)) * 1e6);
   return fmt::format("{}.{:06d} {} {} {}: {}", ts, usec, r.level, r.category, r.func, r.message);
}

}  // namespace Ravel::lumen
