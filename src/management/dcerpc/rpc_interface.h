// What a server of remote procedures serves.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "foundation/exc.h"
#include "management/dcerpc/caller.h"
#include "platform/guid.h"

namespace dcerpc {

using bytes_t = std::vector<std::uint8_t>;
using bytes_view_t = std::span<const std::uint8_t>;

/// An interface or a transfer syntax: its identity and its version, as one 32-bit number with the major part in the
/// low half.
struct SSyntaxId {
  platform::GUID uuid{};
  std::uint32_t version = 0;
  bool operator==(const SSyntaxId&) const = default;
};

/// The order of integers in a stub, as the sender's data representation told it.
enum class byte_order_t : std::uint8_t { Big = 0, Little = 1 };

/// Status codes of fault PDUs.
namespace fault {
inline constexpr std::uint32_t AccessDenied = 5;
inline constexpr std::uint32_t BadStubData = 0x6f7;
inline constexpr std::uint32_t SecurityPackage = 0x721;
inline constexpr std::uint32_t OperationRange = 0x1c010002;
inline constexpr std::uint32_t UnknownInterface = 0x1c010003;
inline constexpr std::uint32_t ProtocolError = 0x1c01000b;
inline constexpr std::uint32_t ServerTooBusy = 0x1c010014;
inline constexpr std::uint32_t Unspecified = 0x1c000012;
/// The request is larger than what the server puts together.
inline constexpr std::uint32_t NoMemory = 0x1c00001b;
}  // namespace fault

/// Ends one call with a fault PDU of this status.
class fault_exc_t : public exc::exc_of_t<fault_exc_t, exc::exc_base_t> {
 public:
  fault_exc_t(std::string text, std::uint32_t status) : exc_of_t(std::move(text)), status_(status) {}
  std::uint32_t Status() const { return status_; }
  std::string GetKind() const override { return "fault_exc_t"; }

 private:
  std::uint32_t status_ = 0;
};

/// An interface of remote procedures, NDR 2.0. Called by many threads at once; outlives the server that serves it.
class IRpcInterface {
 public:
  virtual ~IRpcInterface() = default;
  virtual const SSyntaxId& Id() const = 0;
  /// One call: decodes the request's stub, does the work, gives the stub of the response (little-endian). Throws
  /// fault_exc_t for what the runtime answers with a fault; anything else that leaves it is answered as one, too.
  virtual bytes_t Call(std::uint16_t opnum, bytes_view_t stub, byte_order_t order, const SCaller& caller) = 0;
};

}  // namespace dcerpc
