// Failures as people read them.
#pragma once

#include <string>
#include <string_view>

namespace nfsctl {

/// The lines of a chain of texts as sentences, the cause first, and below them what may help.
std::string FormatFailure(std::string_view text);

}  // namespace nfsctl
