// The way of one backup mount to its mount agent.
#pragma once

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "config/backup_mount_cfg.h"
#include "foundation/unnamed_semaphore.h"
#include "remotefs/remotevfs/remote_vfs_client.h"

class CCompletionEventsAllocator;
class CFsProcInvoker;
class CRemoteFsConnector;

/// How long a mount waits for its agent, in milliseconds. Tests shorten them.
struct SRemoteFsLimits {
  std::uint32_t connectMs = 2000;
  std::uint32_t reconnectMs = 0;
  std::uint32_t responseMs = 2000;
  /// For a client that others use.
  std::uint32_t freeClientMs = 16000;
};

/// A client for the length of one operation; gives it back at its end. One thread.
class CRemoteVfsClientHolder {
 public:
  CRemoteVfsClientHolder(boost::shared_ptr<CRemoteFsConnector> connector,
                         boost::shared_ptr<remotevfs::RemoteVfsClient> client, std::uint64_t connection);
  CRemoteVfsClientHolder(const CRemoteVfsClientHolder&) = delete;
  CRemoteVfsClientHolder& operator=(const CRemoteVfsClientHolder&) = delete;
  ~CRemoteVfsClientHolder();

  remotevfs::RemoteVfsClient* operator->() const { return client_.get(); }
  remotevfs::RemoteVfsClient& operator*() const { return *client_; }
  /// Of which connect the client is: handles of another one mean nothing to it.
  std::uint64_t Connection() const { return connection_; }

 private:
  const boost::shared_ptr<CRemoteFsConnector> connector_;
  const boost::shared_ptr<remotevfs::RemoteVfsClient> client_;
  const std::uint64_t connection_;
};

/// Owns the clients of the mount's pipes, lends them for one operation each, and makes them anew after the agent was
/// lost. Also owns the invoker on which the calls of the mount queue, apart from those of other mounts.
///
/// Any thread. A connect holds the lock throughout: who asks for a client or for the state meanwhile waits for it.
class CRemoteFsConnector : public boost::enable_shared_from_this<CRemoteFsConnector> {
 public:
  /// Does not connect. A pool size below 1 is taken as 1. Throws runtime_exc_t without a configuration or an allocator.
  static boost::shared_ptr<CRemoteFsConnector> Create(
      boost::shared_ptr<CBackupMountCfg> config,
      boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator, std::int32_t poolSize,
      const SRemoteFsLimits& limits = {});
  CRemoteFsConnector(const CRemoteFsConnector&) = delete;
  CRemoteFsConnector& operator=(const CRemoteFsConnector&) = delete;
  ~CRemoteFsConnector();

  /// Resets the agent and opens the pipes; one that does not open is told in the log, all is a failure. Failures are
  /// told as "Failed to connect to the FS server. Pipe: [%1]." with their cause, and leave it unconnected.
  void Connect();
  /// The same, with the failure in the log.
  void ConnectNoThrow() noexcept;
  /// The same, without waiting for a pipe, and without a line for a failure.
  bool Reconnect() noexcept;
  /// Throws CVirtualFsExc 5 at once when it is not connected, and when no client comes free in time.
  CRemoteVfsClientHolder GetClient();
  /// Whether a client lives that has not missed an answer. The agent is not asked.
  bool IsConnected() const;
  /// Lets the calls that run come to their end and refuses all others, and every further connect. Not on a thread of
  /// the invoker. To be called before the last share of it goes: that may be in the hands of such a thread.
  void Stop() noexcept;

  const boost::shared_ptr<CBackupMountCfg>& GetConfig() const { return config_; }
  const boost::shared_ptr<CFsProcInvoker>& GetInvoker() const { return invoker_; }
  const boost::shared_ptr<CCompletionEventsAllocator>& GetAllocator() const { return completionEventsAllocator_; }

 private:
  friend class CRemoteVfsClientHolder;
  using client_ptr_t = boost::shared_ptr<remotevfs::RemoteVfsClient>;

  CRemoteFsConnector(boost::shared_ptr<CBackupMountCfg> config,
                     boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator, std::uint32_t poolSize,
                     const SRemoteFsLimits& limits);

  void BuildPool(std::uint32_t connectTimeoutMs);
  /// With the lock held.
  void FillPool(std::uint32_t connectTimeoutMs);
  void DropClients() noexcept;
  boost::shared_ptr<synch::CUnnamedSemaphore> FreeSlots() const;
  void GiveBack(const client_ptr_t& client, std::uint64_t connection) noexcept;

  const boost::shared_ptr<CBackupMountCfg> config_;
  const boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator_;
  const std::uint32_t poolSize_;
  const SRemoteFsLimits limits_;
  const boost::shared_ptr<CFsProcInvoker> invoker_;

  mutable std::mutex lock_;  // Guards all below.
  boost::shared_ptr<synch::CUnnamedSemaphore> freeSlots_;
  std::uint32_t clientCount_ = 0;
  std::vector<client_ptr_t> allClients_;
  std::vector<client_ptr_t> freeClients_;
  std::uint64_t connection_ = 0;  // The number of the last connect.
  bool isStopped_ = false;
};
