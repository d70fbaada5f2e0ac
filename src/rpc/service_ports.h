// The ports at which MOUNT and NFS really listen.
#pragma once

#include <atomic>
#include <cstdint>

/// One for the process: the server that binds the listeners stores the ports before anything listens, and the
/// registration with the portmapper reads them. Any thread.
struct SServicePorts {
  std::atomic<std::uint16_t> mount{65153};
  std::atomic<std::uint16_t> nfs{65089};
};

SServicePorts& ServicePorts() noexcept;
