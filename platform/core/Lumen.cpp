#include "platform/core/Lumen.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <fmt/format.h>

// File layout (native byte order):
//
//   0       FileHeader, padded to kHeaderSize. One RingHeader per level: where the ring lives,
//           its capacity, and `tail`/`head`, monotonic byte counts bounding the live records.
//   offset  each level's ring, `capacity` bytes (a multiple of 8).
//
// A ring holds 8-byte-aligned entries that never straddle its end: a record (RecordHeader,
// then category, function and message bytes, zero-padded), or a pad marker saying "the rest
// of this lap is unused". The writer first moves `tail` past whatever it is about to
// overwrite, then writes the entry, then advances `head`; so after a crash at any point,
// [tail, head) holds only complete entries. Each record also carries a checksum, so a reader
// racing the writer, or a file damaged on disk, loses the bad records and resynchronises on
// the next good one instead of misreading.

namespace Ravel::lumen {

namespace {

constexpr char kMagic[8] = {'L', 'U', 'M', 'E', 'N', 'R', 'N', 'G'};
constexpr uint32_t kVersion = 1;
constexpr size_t kHeaderSize = 4096;
constexpr uint32_t kRecordMarker = 0x4c52ec01;
constexpr uint32_t kPadMarker = 0x4c50ad02;
constexpr size_t kMaxName = 255;          // category and function lengths are one byte
constexpr size_t kMaxMessageLen = 65535;  // message length is two bytes

struct RingHeader {
   uint64_t offset;    // file offset of the ring's first byte
   uint64_t capacity;  // 0: level not recorded
   uint64_t tail;      // oldest live entry
   uint64_t head;      // end of the newest entry
};

struct FileHeader {
   char magic[8];
   uint32_t version;
   uint32_t headerSize;
   uint32_t levels;
   uint32_t maxMessage;
   RingHeader rings[kLevels];
};
static_assert(sizeof(FileHeader) <= kHeaderSize);

struct RecordHeader {
   uint32_t marker;
   uint32_t check;  // recordCheck over everything after this field
   uint64_t seq;
   int64_t timeNs;
   uint16_t msgLen;
   uint8_t level;
   uint8_t catLen;
   uint8_t funcLen;
   uint8_t reserved[3];
};
static_assert(sizeof(RecordHeader) == 32);

struct PadMarker {
   uint32_t marker;
   uint32_t length;  // bytes to the end of the ring
};

constexpr uint64_t align8(uint64_t n) {
   return (n + 7) & ~uint64_t{7};
}

uint64_t recordSize(const RecordHeader& h) {
   return align8(sizeof(RecordHeader) + h.catLen + h.funcLen + h.msgLen);
}

// Word-at-a-time multiplicative hash of [8, size): cheap enough for the record path, and any
// torn or overwritten word changes it.
uint32_t recordCheck(const uint8_t* rec, uint64_t size) {
   constexpr uint64_t kMul = 0x9e3779b97f4a7c15ull;
   uint64_t h = 0x6c756d656e000000ull ^ size;
   for (uint64_t i = 8; i < size; i += 8) {
      uint64_t w;
      std::memcpy(&w, rec + i, 8);
      h = (h ^ w) * kMul;
   }
   h ^= h >> 32;
   h *= kMul;
   return static_cast<uint32_t>(h >> 32);
}

// Cutting inside a UTF-8 sequence would leave an invalid tail; back up to a character start.
size_t utf8Cut(std::string_view s, size_t n) {
   size_t cut = n;
   while (cut > 0 && n - cut < 3 && (static_cast<uint8_t>(s[cut]) & 0xc0) == 0x80)
      --cut;
   return (static_cast<uint8_t>(s[cut]) & 0xc0) == 0x80 ? n : cut;
}

// The writer keeps its own copy of each ring's positions: the file is only ever written on
// the record path, never read back, except to step `tail` over entries being overwritten.
struct Ring {
   RingHeader* hdr = nullptr;
   uint8_t* data = nullptr;
   uint64_t capacity = 0;
   uint64_t head = 0;
   uint64_t tail = 0;
   uint64_t headPos = 0;  // head % capacity
   uint64_t tailPos = 0;  // tail % capacity
};

struct State {
   int fd = -1;
   uint8_t* base = nullptr;
   size_t size = 0;
   size_t maxMessage = kMaxMessageLen;
   uint64_t seq = 0;
   std::string path;
   Ring rings[kLevels];
};
State gState;

// Compiler-only ordering: a crashed process leaves every store it executed in the page cache,
// so only the order the compiler emits them in matters.
inline void ordered() {
   std::atomic_signal_fence(std::memory_order_seq_cst);
}

// Drops the oldest entries until the next `bytes` after head are free.
void reserve(Ring& r, uint64_t bytes) {
   uint64_t need = r.head + bytes - r.capacity;
   if (r.head + bytes <= r.capacity || r.tail >= need)
      return;
   while (r.tail < need) {
      const uint8_t* at = r.data + r.tailPos;
      uint32_t marker;
      std::memcpy(&marker, at, sizeof marker);
      uint64_t step = 0;
      if (marker == kPadMarker) {
         step = r.capacity - r.tailPos;
      } else if (marker == kRecordMarker) {
         RecordHeader h;
         std::memcpy(&h, at, sizeof h);
         step = recordSize(h);
      }
      if (step == 0 || r.tail + step > r.head) {
         // Not what this writer put there (the file was scribbled on): forget the ring.
         r.tail = r.head;
         r.tailPos = r.headPos;
         break;
      }
      r.tail += step;
      r.tailPos += step;
      if (r.tailPos == r.capacity)
         r.tailPos = 0;
   }
   r.hdr->tail = r.tail;
   ordered();
}

void publishHead(Ring& r, uint64_t bytes) {
   r.head += bytes;
   r.headPos += bytes;
   if (r.headPos == r.capacity)
      r.headPos = 0;
   ordered();
   r.hdr->head = r.head;
}

// mkdir -p with mode 0755.
bool makeDirs(const std::string& dir) {
   for (size_t pos = 1; pos <= dir.size(); ++pos) {
      if (pos != dir.size() && dir[pos] != '/')
         continue;
      std::string prefix = dir.substr(0, pos);
      if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST)
         return false;
   }
   struct stat st {};
   return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::runtime_error notLumen(const std::string& path, std::string_view why) {
   return std::runtime_error(fmt::format("{}: not a Lumen trace file ({})", path, why));
}

std::string readAll(const std::string& path) {
   int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0)
      throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));
   std::string data;
   char buf[65536];
   for (;;) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR)
         continue;
      if (n < 0) {
         int err = errno;
         ::close(fd);
         throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(err)));
      }
      if (n == 0)
         break;
      data.append(buf, static_cast<size_t>(n));
   }
   ::close(fd);
   return data;
}

void readRing(const uint8_t* file, size_t fileSize, int level, const RingHeader& rh,
              std::vector<Record>& out) {
   uint64_t cap = rh.capacity;
   if (cap == 0 || cap % 8 != 0 || rh.offset < kHeaderSize || rh.offset > fileSize ||
       cap > fileSize - rh.offset) {
      return;
   }
   const uint8_t* ring = file + rh.offset;
   uint64_t head = rh.head;
   uint64_t tail = rh.tail;
   if (tail > head || head - tail > cap) {
      // Damaged bounds: scan the last lap before head and keep whatever checks out.
      tail = head - std::min(head, cap);
   }
   uint64_t p = tail;
   while (p < head) {
      uint64_t pos = p % cap;
      uint64_t left = std::min(cap - pos, head - p);
      if (left < sizeof(PadMarker)) {
         p += left;
         continue;
      }
      const uint8_t* at = ring + pos;
      PadMarker pad;
      std::memcpy(&pad, at, sizeof pad);
      if (pad.marker == kPadMarker && pad.length == cap - pos) {
         p += cap - pos;
         continue;
      }
      if (pad.marker == kRecordMarker && left >= sizeof(RecordHeader)) {
         RecordHeader h;
         std::memcpy(&h, at, sizeof h);
         uint64_t size = recordSize(h);
         if (h.level == level && size <= left && recordCheck(at, size) == h.check) {
            const char* text = reinterpret_cast<const char*>(at + sizeof h);
            out.push_back({level, h.seq, static_cast<double>(h.timeNs) * 1e-9,
                           std::string(text, h.catLen), std::string(text + h.catLen, h.funcLen),
                           std::string(text + h.catLen + h.funcLen, h.msgLen)});
            p += size;
            continue;
         }
      }
      p += 8;  // not an intact entry: resynchronise on the next word
   }
}

}  // namespace

bool initialize(const std::string& nameTemplate, std::span<const uint32_t> ringSizesKiB,
                const char* altName, int /*reserved*/, int /*headerHint*/, int /*threadingMode*/,
                bool /*truncate*/, int maxMessage) {
   shutdown();
   std::string name = altName ? altName : nameTemplate;
   if (auto pos = name.find("%d"); pos != std::string::npos)
      name.replace(pos, 2, std::to_string(getpid()));
   const char* dirEnv = std::getenv("LUMENDIR");
   std::string dir = dirEnv && *dirEnv ? dirEnv : kDefaultDir;
   if (!makeDirs(dir))
      return false;
   std::string path = dir + "/" + name;

   FileHeader h{};
   std::memcpy(h.magic, kMagic, sizeof kMagic);
   h.version = kVersion;
   h.headerSize = kHeaderSize;
   h.levels = kLevels;
   h.maxMessage = maxMessage > 0 ? std::min<uint32_t>(maxMessage, kMaxMessageLen)
                                 : static_cast<uint32_t>(kMaxMessageLen);
   uint64_t size = kHeaderSize;
   for (size_t l = 0; l < kLevels; ++l) {
      uint64_t kib = l < ringSizesKiB.size() ? ringSizesKiB[l] : 0;
      h.rings[l].offset = size;
      h.rings[l].capacity = kib * 1024;
      size += kib * 1024;
   }

   // A fresh inode rather than O_TRUNC: another process still mapping a file of this name
   // would take SIGBUS on its next record if the file shrank under it. O_EXCL also refuses
   // to follow a planted symlink.
   ::unlink(path.c_str());
   int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
   if (fd < 0)
      return false;
   // Allocate the blocks now: a page that cannot be backed later would fault on the record
   // path with SIGBUS.
   void* m = MAP_FAILED;
   if (::ftruncate(fd, static_cast<off_t>(size)) == 0 &&
       ::posix_fallocate(fd, 0, static_cast<off_t>(size)) == 0) {
      m = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
   }
   if (m == MAP_FAILED) {
      ::close(fd);
      ::unlink(path.c_str());
      return false;
   }
   gState.fd = fd;
   gState.base = static_cast<uint8_t*>(m);
   gState.size = size;
   gState.path = path;
   gState.maxMessage = h.maxMessage;
   gState.seq = 0;
   auto* fh = reinterpret_cast<FileHeader*>(gState.base);
   std::memcpy(fh, &h, sizeof h);
   for (int l = 0; l < kLevels; ++l) {
      Ring& r = gState.rings[l];
      r = Ring{};
      r.hdr = &fh->rings[l];
      r.data = gState.base + h.rings[l].offset;
      r.capacity = h.rings[l].capacity;
   }
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
   Ring& r = gState.rings[level];
   if (r.capacity == 0)
      return;
   // Rings are whole KiB, so header and both names (at most 542 bytes) always fit.
   size_t catLen = std::min(category.size(), kMaxName);
   size_t funcLen = std::min(func.size(), kMaxName);
   size_t room = r.capacity - sizeof(RecordHeader) - catLen - funcLen;
   size_t msgLen = std::min({msg.size(), gState.maxMessage, room});
   if (msgLen < msg.size())
      msgLen = utf8Cut(msg, msgLen);
   uint64_t size = align8(sizeof(RecordHeader) + catLen + funcLen + msgLen);

   if (r.headPos + size > r.capacity) {
      uint64_t padBytes = r.capacity - r.headPos;
      reserve(r, padBytes);
      PadMarker pad{kPadMarker, static_cast<uint32_t>(padBytes)};
      std::memcpy(r.data + r.headPos, &pad, sizeof pad);
      publishHead(r, padBytes);
   }
   reserve(r, size);

   timespec ts{};
   clock_gettime(CLOCK_REALTIME, &ts);
   RecordHeader h{};
   h.seq = ++gState.seq;
   h.timeNs = static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
   h.msgLen = static_cast<uint16_t>(msgLen);
   h.level = static_cast<uint8_t>(level);
   h.catLen = static_cast<uint8_t>(catLen);
   h.funcLen = static_cast<uint8_t>(funcLen);
   uint8_t* rec = r.data + r.headPos;
   uint64_t zero = 0;
   std::memcpy(rec + size - 8, &zero, 8);  // the padding is checksummed too
   std::memcpy(rec, &h, sizeof h);
   uint8_t* text = rec + sizeof h;
   std::memcpy(text, category.data(), catLen);
   std::memcpy(text + catLen, func.data(), funcLen);
   std::memcpy(text + catLen + funcLen, msg.data(), msgLen);
   h.marker = kRecordMarker;
   h.check = recordCheck(rec, size);
   std::memcpy(rec, &h, 8);
   publishHead(r, size);
}

void shutdown() {
   if (gState.base)
      ::munmap(gState.base, gState.size);
   if (gState.fd >= 0)
      ::close(gState.fd);
   gState = State{};
}

std::vector<Record> readFile(const std::string& path) {
   // A copy rather than a mapping: the writer may still be running, and a file that shrinks
   // under a mapping would kill the reader with SIGBUS.
   std::string data = readAll(path);
   if (data.size() < kHeaderSize)
      throw notLumen(path, "too short");
   FileHeader h;
   std::memcpy(&h, data.data(), sizeof h);
   if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0)
      throw notLumen(path, "bad magic");
   if (h.version != kVersion || h.headerSize != kHeaderSize || h.levels != kLevels)
      throw notLumen(path, fmt::format("unsupported version {}", h.version));
   std::vector<Record> out;
   const auto* file = reinterpret_cast<const uint8_t*>(data.data());
   for (int l = 0; l < kLevels; ++l)
      readRing(file, data.size(), l, h.rings[l], out);
   std::sort(out.begin(), out.end(), [](auto& a, auto& b) { return a.seq < b.seq; });
   return out;
}

std::string formatRecord(const Record& r) {
   auto usecs = static_cast<int64_t>(std::llround(r.timestamp * 1e6));
   auto secs = static_cast<time_t>(usecs / 1000000);
   tm t{};
   localtime_r(&secs, &t);
   char ts[32];
   std::strftime(ts, sizeof ts, "%Y-%m-%d %H:%M:%S", &t);
   std::string line =
       fmt::format("{}.{:06d} {} {} {}: ", ts, usecs % 1000000, r.level, r.category, r.func);
   // Keep it one line whatever the message holds.
   for (char c : r.message) {
      if (static_cast<unsigned char>(c) < 0x20 && c != '\t')
         line += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
      else
         line += c;
   }
   return line;
}

}  // namespace Ravel::lumen
