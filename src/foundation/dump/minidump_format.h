// The public minidump format: little-endian records, as they stand in the file.
#pragma once

#include <cstdint>

namespace crash::minidump {

inline constexpr std::uint32_t Signature = 0x504d444d;  // "MDMP"
inline constexpr std::uint32_t Version = 0xa793;

/// What a dump is to hold; other bits are kept in the header and change nothing.
namespace type {
inline constexpr std::uint64_t Normal = 0;
inline constexpr std::uint64_t WithDataSegs = 0x1;
inline constexpr std::uint64_t WithFullMemory = 0x2;
inline constexpr std::uint64_t WithPrivateReadWriteMemory = 0x200;
}  // namespace type

enum class stream_t : std::uint32_t {
  ThreadList = 3,
  ModuleList = 4,
  MemoryList = 5,
  Exception = 6,
  SystemInfo = 7,
  Memory64List = 9,
  Comment = 10,
  MiscInfo = 15,
  ThreadNames = 24,
  // Of systems like this one.
  LinuxProcStatus = 0x47670004,
  LinuxRelease = 0x47670005,
  LinuxCmdLine = 0x47670006,
  LinuxAuxv = 0x47670008,
  LinuxMaps = 0x47670009,
};

#pragma pack(push, 4)

struct header_t {
  std::uint32_t signature = Signature;
  std::uint32_t version = Version;
  std::uint32_t streamCount = 0;
  std::uint32_t directory = 0;
  std::uint32_t checksum = 0;
  std::uint32_t time = 0;
  std::uint64_t flags = 0;
};

struct location_t {
  std::uint32_t size = 0;
  std::uint32_t place = 0;
};

struct directory_t {
  std::uint32_t type = 0;
  location_t location;
};

struct memory_t {
  std::uint64_t start = 0;
  location_t location;
};

struct memory64_t {
  std::uint64_t start = 0;
  std::uint64_t size = 0;
};

struct thread_t {
  std::uint32_t id = 0;
  std::uint32_t suspendCount = 0;
  std::uint32_t priorityClass = 0;
  std::uint32_t priority = 0;
  std::uint64_t environment = 0;
  memory_t stack;
  location_t context;
};

struct thread_name_t {
  std::uint32_t id = 0;
  std::uint64_t name = 0;
};

struct module_t {
  std::uint64_t base = 0;
  std::uint32_t size = 0;
  std::uint32_t checksum = 0;
  std::uint32_t time = 0;
  std::uint32_t name = 0;
  std::uint32_t version[13] = {};
  location_t codeView;
  location_t misc;
  std::uint64_t reserved[2] = {};
};

/// In front of the build id in a module's CodeView record.
inline constexpr std::uint32_t BuildIdSignature = 0x4270454c;

struct exception_t {
  std::uint32_t thread = 0;
  std::uint32_t alignment = 0;
  std::uint32_t code = 0;
  std::uint32_t flags = 0;
  std::uint64_t record = 0;
  std::uint64_t address = 0;
  std::uint32_t parameterCount = 0;
  std::uint32_t parameterAlignment = 0;
  std::uint64_t parameters[15] = {};
  location_t context;
};

struct system_info_t {
  std::uint16_t architecture = 9;  // AMD64
  std::uint16_t level = 0;
  std::uint16_t revision = 0;
  std::uint8_t processorCount = 0;
  std::uint8_t productType = 0;
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t build = 0;
  std::uint32_t platform = 0x8201;  // Linux
  std::uint32_t servicePack = 0;
  std::uint16_t suiteMask = 0;
  std::uint16_t reserved = 0;
  std::uint64_t features[3] = {};
};

struct misc_info_t {
  std::uint32_t size = 24;
  std::uint32_t flags = 1;  // Only the process id is told.
  std::uint32_t processId = 0;
  std::uint32_t createTime = 0;
  std::uint32_t userTime = 0;
  std::uint32_t kernelTime = 0;
};

#pragma pack(pop)

/// Registers of a thread on AMD64.
struct context_t {
  static constexpr std::uint32_t Architecture = 0x100000;
  static constexpr std::uint32_t Control = Architecture | 1;
  static constexpr std::uint32_t All = Architecture | 0xf;

  std::uint64_t home[6] = {};
  std::uint32_t flags = 0;
  std::uint32_t mxCsr = 0;
  std::uint16_t cs = 0, ds = 0, es = 0, fs = 0, gs = 0, ss = 0;
  std::uint32_t eFlags = 0;
  std::uint64_t dr[6] = {};
  std::uint64_t rax = 0, rcx = 0, rdx = 0, rbx = 0, rsp = 0, rbp = 0, rsi = 0, rdi = 0;
  std::uint64_t r8 = 0, r9 = 0, r10 = 0, r11 = 0, r12 = 0, r13 = 0, r14 = 0, r15 = 0;
  std::uint64_t rip = 0;
  /// As the processor's FXSAVE lays it out.
  std::uint8_t floatSave[512] = {};
  std::uint8_t vectors[26 * 16] = {};
  std::uint64_t vectorControl = 0;
  std::uint64_t debug[5] = {};
};

static_assert(sizeof(header_t) == 32 && sizeof(directory_t) == 12 && sizeof(thread_t) == 48);
static_assert(sizeof(thread_name_t) == 12 && sizeof(module_t) == 108 && sizeof(exception_t) == 168);
static_assert(sizeof(system_info_t) == 56 && sizeof(misc_info_t) == 24 && sizeof(context_t) == 1232);

}  // namespace crash::minidump
