// What a command answers.
#pragma once

#include <cstdint>
#include <string>

#include "management/winxml.h"
#include "platform/guid.h"

/// The results of one call, in the order in which they are written: one child of the root "OutputArguments" a result.
/// A name that is written twice is there twice. Texts are UTF-8; any other throws.
class COutputArguments {
 public:
  /// A new document with an empty root.
  COutputArguments();

  void SetUnicode(const std::string& name, const std::string& text);
  void SetMultibyte(const std::string& name, const std::string& text);
  /// Lower case, in braces.
  void SetGuid(const std::string& name, const GUID& guid);
  void SetInteger(const std::string& name, std::int32_t value);
  void SetUInt64(const std::string& name, std::uint64_t value);
  void SetBool(const std::string& name, bool flag);
  /// A child without a value, for results with a structure.
  winxml::element_ptr AddNode(const std::string& name);

  const winxml::document_ptr& Document() const { return document_; }

 private:
  const winxml::document_ptr document_;
  const winxml::element_ptr root_;
};
