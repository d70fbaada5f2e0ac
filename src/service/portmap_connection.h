// The way to the portmapper of this machine.
#pragma once

#include <boost/smart_ptr/weak_ptr.hpp>
#include <memory>
#include <mutex>

#include "rpc/rpc_client_stream.h"

class CSocketIP;

/// Connects to 127.0.0.1, port 111, from a reserved source port when the process may: a foreign portmapper takes
/// registrations from no other. A portmapper that does not answer holds its caller up, but not the stop. Any thread.
class CPortmapConnector {
 public:
  CPortmapConnector() = default;
  CPortmapConnector(const CPortmapConnector&) = delete;
  CPortmapConnector& operator=(const CPortmapConnector&) = delete;

  /// Throws when nobody listens, and after Abort.
  std::unique_ptr<IRpcClientStream> Connect();
  /// Fails the wait on the last stream that was connected, and each later Connect.
  void Abort() noexcept;

 private:
  void Keep(const boost::shared_ptr<CSocketIP>& socket);

  /// Guards both below.
  std::mutex lock_;
  bool aborted_ = false;
  boost::weak_ptr<CSocketIP> socket_;
};
