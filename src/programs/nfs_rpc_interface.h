// The NFS program, version 3 (RFC 1813).
#pragma once

#include <cstddef>
#include <span>

#include "foundation/byte_buffer.h"
#include "rpc/rpc_message.h"
#include "vfs/table/listing_index.h"

/// Decodes, calls one operation of the virtual file system, encodes. A failed operation is a status in the result.
class CNfsRpcInterface : public IXdrRpcInterface {
 public:
  static constexpr std::uint32_t Program = 100003;
  static constexpr std::uint32_t Version = 3;

  void ProcessCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                   CVirtualFs& fs) override;
  /// READ and WRITE return when their transfer is queued; all other calls are at their end.
  void ProcessAsyncCall(bool isClientAllowed, const sockaddr_in& peer, const boost::shared_ptr<CXDRReader>& reader,
                        const boost::shared_ptr<CXDRCompletionQueue>& completionQueue, CVirtualFs& fs) override;
};

/// The same as a plain function, for request queues.
void DispatchNfsCall(bool isClientAllowed, const sockaddr_in& peer, CXDRReader& reader, CXDRWriter& writer,
                     CVirtualFs& fs);

/// The places that the LOOKUPs among records ask for, as views of the records, until there is room for no more. Gives
/// their number. Throws for a record that cannot be decoded.
std::size_t PlacesOfLookups(std::span<io::byte_buffer_t* const> records, std::span<SListingPlace> places);
/// An rpc_foresight_t: has the processor fetch what the LOOKUPs will touch, where the catalogue is so large that it is
/// far. Throws as PlacesOfLookups does.
void ForeseeNfsCalls(std::span<io::byte_buffer_t* const> records, const CVirtualFs& fs);
