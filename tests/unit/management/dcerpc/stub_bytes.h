// Stubs as bytes, for tests.
#pragma once

#include <cstdint>
#include <string_view>

#include "management/dcerpc/rpc_interface.h"

namespace test {

/// The bytes of a text of hexadecimal digits; blanks are left out.
inline dcerpc::bytes_t Hex(std::string_view text) {
  dcerpc::bytes_t bytes;
  int digits = 0;
  for (const char c : text) {
    if (c == ' ')
      continue;
    const int digit = c <= '9' ? c - '0' : c - 'a' + 10;
    if (digits++ % 2 == 0) {
      bytes.push_back(static_cast<std::uint8_t>(digit << 4));
    } else {
      bytes.back() = static_cast<std::uint8_t>(bytes.back() | digit);
    }
  }
  return bytes;
}

/// The status of the fault that the call ends with; 0 when it ends well.
template <typename Call>
std::uint32_t FaultOf(const Call& call) {
  try {
    call();
  } catch (const dcerpc::fault_exc_t& failure) {
    return failure.Status();
  }
  return 0;
}

}  // namespace test
