// The documents of a call: arguments out, results in.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nfsctl {

/// Names and values in the order in which they are sent.
using arguments_t = std::vector<std::pair<std::string, std::string>>;

/// <InputArguments> with one element an argument.
std::string MakeInput(const arguments_t& arguments);

/// A name that an element can have.
bool IsArgumentName(std::string_view name);

/// One result: a value, or items with attributes.
struct SResult {
  std::string name;
  std::optional<std::string> value;
  std::vector<arguments_t> items;
};

/// The results of a call, in their order.
class COutput {
 public:
  /// Throws exc::runtime_exc_t for a text that is no output document.
  explicit COutput(const std::string& xml);

  const std::vector<SResult>& Results() const { return results_; }
  /// Each throws exc::runtime_exc_t for a result that is not there or not of its kind.
  const std::string& Text(std::string_view name) const;
  std::uint64_t Number(std::string_view name) const;
  bool Flag(std::string_view name) const;
  /// The items of a structured result.
  const std::vector<arguments_t>& Items(std::string_view name) const;

  /// One member a result: its text, or its items as a list of objects.
  nlohmann::ordered_json ToJson() const;

 private:
  const SResult& Find(std::string_view name) const;

  std::vector<SResult> results_;
};

}  // namespace nfsctl
