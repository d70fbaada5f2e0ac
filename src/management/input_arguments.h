// What a command is given.
#pragma once

#include <cstdint>
#include <string>

#include "management/winxml.h"
#include "platform/guid.h"

/// The arguments of one call: one child of the root "InputArguments" an argument, its value in the attribute "value".
/// Elements are found without regard to case, with a warning. Each reader throws for an argument that is missing or
/// does not convert, with a last text that names the reader and the argument.
class CInputArguments {
 public:
  explicit CInputArguments(winxml::document_ptr document);

  /// Throws for a document without root.
  bool HasArgument(const std::string& name) const;

  std::string GetUnicode(const std::string& name) const;
  std::string GetMultibyte(const std::string& name) const;
  /// With or without either brace.
  GUID GetGuid(const std::string& name) const;
  /// Decimal. A negative number down to -2^31 stands for the one with the same 32 bits: -1 is how "none" is written.
  std::uint32_t GetInteger(const std::string& name) const;
  /// Decimal.
  std::uint64_t GetUInt64(const std::string& name) const;

 private:
  winxml::element_ptr FindArgument(const std::string& name) const;
  std::string GetValue(const std::string& name) const;

  const winxml::document_ptr document_;
};
