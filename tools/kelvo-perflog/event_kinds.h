// What is known of each event.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace perflog {

struct SRecord;

inline constexpr std::uint32_t AnySize = UINT32_MAX;

struct SEventKind {
  std::uint32_t code;
  const char* name;
  std::uint32_t dataSize;  ///< AnySize for a text.
};

/// In the order of their codes.
std::span<const SEventKind> EventKinds() noexcept;
/// Null for a code that is not known.
const SEventKind* FindEventKind(std::uint32_t code) noexcept;
/// The name, or "event N".
std::string EventName(std::uint32_t code);

/// The data of a record; what its event does not have is empty.
struct SDetails {
  std::optional<std::uint64_t> fid;
  std::optional<std::uint64_t> offset;
  std::optional<std::uint64_t> bytes;
  std::optional<std::uint64_t> calls;
  std::optional<std::uint64_t> nanoseconds;
  std::optional<std::uint32_t> permille;
  std::optional<bool> success;
  std::string text;  ///< Printable characters of ASCII; of an event that is not known, its bytes in hexadecimal.
};

/// The record is one that CLogReader gave.
SDetails ReadDetails(const SRecord& record);

}  // namespace perflog
