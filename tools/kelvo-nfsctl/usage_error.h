// What is wrong with a command line.
#pragma once

#include <stdexcept>

namespace nfsctl {

/// Ends the program with the code for bad usage; the text says what to write instead.
class usage_error_t : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

}  // namespace nfsctl
