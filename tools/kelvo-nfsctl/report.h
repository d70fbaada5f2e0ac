// What a command tells at its end.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace nfsctl {

/// The same answer for people and for programs.
struct SReport {
  std::string text;  ///< Whole lines.
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
};

/// Columns as wide as their widest cell, two blanks apart.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace nfsctl
