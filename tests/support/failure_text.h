// What a call fails with.
#pragma once

#include <string>

#include "foundation/exc.h"

namespace test {

/// The whole text of the failure; "no failure" without one. Lets pass what is no exception of ours.
template <typename Call>
std::string FailureOf(const Call& call) {
  try {
    call();
  } catch (const exc::exc_base_t& failure) {
    return failure.what();
  }
  return "no failure";
}

}  // namespace test
