// Several replies on their way out together.
#pragma once

#include <sys/uio.h>

#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "rpc/xdr_writer.h"
#include "transports/sockets/socket_ip.h"

/// Gathers replies and sends them in pieces of exactly BatchSize bytes and a rest, cut without regard to where a reply
/// ends. Large data goes out from where it lies, small data is put together first; data in the kernel leaves from
/// there, behind what was gathered before. One thread.
class CXdrReplyBatch {
 public:
  /// Bytes that leave with one send.
  static constexpr std::size_t BatchSize = 0x40000;

  explicit CXdrReplyBatch(boost::shared_ptr<CSocketIP> socket);
  CXdrReplyBatch(const CXdrReplyBatch&) = delete;
  CXdrReplyBatch& operator=(const CXdrReplyBatch&) = delete;

  /// Takes the reply out of the writer; sends whatever fills the batch. Throws what the socket throws.
  void Add(CXDRWriter& reply);
  /// Brings the data of the reply that is just being added into memory, as far as there is any and it is not just being
  /// sent. Throws win_sys_exc_t when a pipe cannot be read.
  void EmptyPipes();
  /// Sends the rest.
  void Flush();

 private:
  void SendGathered(bool more);
  void AddPiece(const std::uint8_t* data, std::size_t length);
  void Put(const std::uint8_t* data, std::size_t length);

  const boost::shared_ptr<CSocketIP> socket_;
  std::vector<SXdrSegment> current_;  ///< Of the reply that is just being added,
  std::size_t next_ = 0;              ///< those from here on.
  std::vector<iovec> pieces_;
  std::size_t fill_ = 0;
  /// What the pieces point at: the data of large ones, and the bytes of small ones.
  std::vector<SXdrSegment> held_;
  std::unique_ptr<std::uint8_t[]> small_;
  std::size_t smallFill_ = 0;
};
