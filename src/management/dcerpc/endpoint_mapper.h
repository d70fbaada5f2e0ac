// The endpoint mapper of this machine (C706, appendices I, L and O): the table in which callers find the port of an
// interface.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "management/dcerpc/client.h"

namespace dcerpc {

/// e1af8308-5d1f-11c9-91a4-08002b14a0fa, version 3.0.
const SSyntaxId& EndpointMapperInterfaceId();

/// Where the mapper of this machine is looked for.
struct SEndpointMapperPlace {
  static constexpr std::uint16_t WellKnownPort = 135;

  std::uint16_t port = WellKnownPort;
  /// How long it may keep the service waiting, each time.
  std::chrono::milliseconds limit{1000};
};

/// One row of the table: an interface over TCP, for any object.
struct SEndpointEntry {
  SSyntaxId interface;
  std::uint16_t port = 0;
  /// Nothing in it: whatever address the mapper was reached at.
  std::array<std::uint8_t, 4> address{};
  /// For people; at most MaxAnnotation bytes are kept.
  std::string annotation;

  static constexpr std::size_t MaxAnnotation = 63;
};

/// The tower of an entry: interface, NDR, connection-oriented protocol, port, address.
bytes_t EncodeTower(const SEndpointEntry& entry);
/// The parameters that ept_insert begins with and that ept_delete has: this one entry.
bytes_t EncodeEndpointEntry(const SEndpointEntry& entry);

/// A mapper that answered. One thread at a time.
class CEndpointMapper {
 public:
  /// Asks on 127.0.0.1. Nothing when nobody is there, or somebody who does not accept a bind to the mapper's interface
  /// within the limit.
  static std::unique_ptr<CEndpointMapper> Find(const SEndpointMapperPlace& place);

  /// Adds the entry, in the place of others that say the same. Both throw exc::exc_base_t: fault_exc_t when the call is
  /// refused, win_sys_exc_t with the mapper's status.
  void Insert(const SEndpointEntry& entry);
  void Delete(const SEndpointEntry& entry);

 private:
  explicit CEndpointMapper(std::unique_ptr<IClientStream> stream);
  void Call(std::uint16_t opnum, bytes_view_t stub);

  CRpcClient client_;
};

}  // namespace dcerpc
