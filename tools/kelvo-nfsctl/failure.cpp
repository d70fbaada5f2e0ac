#include "kelvo-nfsctl/failure.h"

#include <algorithm>

#include "platform/text.h"

namespace nfsctl {
namespace {

struct SHint {
  std::string_view symptom;
  std::string_view advice;
};

constexpr SHint Hints[] = {
    {"RPC client is not a member of built-in Administrators group.",
     "Run the command as root or as a member of the group kelvo-admins; over TCP, as a user (--user) whose account on "
     "that machine is one of these."},
    {"Failed to connect to the service. Endpoint: [unix:",
     "Is the service running? Its socket lies where KELVO_RUNTIME_DIR tells, and is open to root and the group "
     "kelvo-admins."},
    {"Failed to connect to the service. Endpoint: [tcp:",
     "Is the service running there, and does its management port let this machine in?"},
    {"There are no credentials for the connection.",
     "Name a user with --user, or get a Kerberos ticket with kinit first."},
    {"Virtual file system is locked.", "New settings were stored; restart the service to go on."},
};

/// A line as a sentence: begun and ended as one.
std::string Sentence(std::string_view line) {
  std::string sentence(line);
  if (sentence[0] >= 'a' && sentence[0] <= 'z')
    sentence[0] = static_cast<char>(sentence[0] - 'a' + 'A');
  if (std::string_view(".!?").find(sentence.back()) == std::string_view::npos)
    sentence += '.';
  return sentence;
}

}  // namespace

std::string FormatFailure(std::string_view text) {
  constexpr std::string_view Indentation = "  ";
  std::string result = "kelvo-nfsctl: ";
  bool isFirst = true;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line = platform::Trim(text.substr(start, end - start));
    start = end + 1;
    if (line.empty())
      continue;
    if (!isFirst)
      result += Indentation;
    result += Sentence(line) + "\n";
    isFirst = false;
  }
  if (isFirst)
    result += "The command failed, and the service did not say why.\n";
  for (const SHint& hint : Hints) {
    if (text.find(hint.symptom) != std::string_view::npos)
      result += std::string(hint.advice) + "\n";
  }
  return result;
}

}  // namespace nfsctl
