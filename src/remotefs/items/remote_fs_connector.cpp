#include "remotefs/items/remote_fs_connector.h"
#include "remotefs/remotevfs/server_state.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <limits>
#include <utility>

#include "foundation/log.h"
#include "platform/clock.h"
#include "vfs/items/completion_events_allocator.h"
#include "vfs/items/fs_proc_invoker.h"
#include "vfs/items/virtual_fs_exc.h"

namespace {

/// Hosts are told of an agent that is away as of a disk that cannot be read.
constexpr nfsstat3 NFS3ERR_IO = 5;

/// More than there are threads to wait for a client.
constexpr std::int32_t Everyone = 1000000;

std::string FullPipeBaseName(const CBackupMountCfg& config) {
  return std::string(remotevfs::PipePrefix) + config.pipe;
}

}  // namespace

CRemoteVfsClientHolder::CRemoteVfsClientHolder(boost::shared_ptr<CRemoteFsConnector> connector,
                                               boost::shared_ptr<remotevfs::RemoteVfsClient> client,
                                               std::uint64_t connection)
    : connector_(std::move(connector)), client_(std::move(client)), connection_(connection) {}

CRemoteVfsClientHolder::~CRemoteVfsClientHolder() {
  connector_->GiveBack(client_, connection_);
}

boost::shared_ptr<CRemoteFsConnector> CRemoteFsConnector::Create(
    boost::shared_ptr<CBackupMountCfg> config, boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator,
    std::int32_t poolSize, const SRemoteFsLimits& limits) {
  if (!config)
    throw exc::runtime_exc_t("CRemoteFsConnector::Create(): Incorrect parameter <config: {null}>");
  if (!completionEventsAllocator)
    throw exc::runtime_exc_t("CRemoteFsConnector::Create(): Incorrect parameter <completionEventsAllocator: {null}>");
  return boost::shared_ptr<CRemoteFsConnector>(
      new CRemoteFsConnector(std::move(config), std::move(completionEventsAllocator),
                             static_cast<std::uint32_t>(std::max(poolSize, 1)), limits));
}

CRemoteFsConnector::CRemoteFsConnector(boost::shared_ptr<CBackupMountCfg> config,
                                       boost::shared_ptr<CCompletionEventsAllocator> completionEventsAllocator,
                                       std::uint32_t poolSize, const SRemoteFsLimits& limits)
    : config_(std::move(config)),
      completionEventsAllocator_(std::move(completionEventsAllocator)),
      poolSize_(poolSize),
      limits_(limits),
      invoker_(CFsProcInvoker::Create(exc::FormatText("vm '%1'", config_->vmName), static_cast<std::int32_t>(poolSize),
                                      completionEventsAllocator_)) {}

CRemoteFsConnector::~CRemoteFsConnector() = default;

void CRemoteFsConnector::Connect() {
  BuildPool(limits_.connectMs);
}

void CRemoteFsConnector::ConnectNoThrow() noexcept {
  try {
    BuildPool(limits_.connectMs);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("", failure);
  }
}

bool CRemoteFsConnector::Reconnect() noexcept {
  try {
    BuildPool(limits_.reconnectMs);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void CRemoteFsConnector::BuildPool(std::uint32_t connectTimeoutMs) {
  try {
    const std::lock_guard lock(lock_);
    FillPool(connectTimeoutMs);
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to connect to the FS server. Pipe: [%1].", failure, config_->pipe);
  }
}

void CRemoteFsConnector::FillPool(std::uint32_t connectTimeoutMs) {
  DropClients();
  if (isStopped_)
    throw exc::runtime_exc_t("The mount was withdrawn.");
  const std::string fullPipeBaseName = FullPipeBaseName(*config_);
  remotevfs::ServerState(poolSize_, fullPipeBaseName).ResetAgent();

  // All that may fail for want of memory comes before a client counts, and giving one back takes none.
  auto freeSlots = boost::make_shared<synch::CUnnamedSemaphore>(0, std::numeric_limits<std::int32_t>::max());
  freeClients_.reserve(poolSize_);
  ++connection_;
  for (std::uint32_t n = 0; n < poolSize_; ++n) {
    const std::string name = remotevfs::PipeName(fullPipeBaseName, n);
    try {
      const auto client = boost::make_shared<remotevfs::RemoteVfsClient>(name, connectTimeoutMs, limits_.responseMs);
      allClients_.push_back(client);
      freeClients_.push_back(client);
      ++clientCount_;
      freeSlots->Release();
    } catch (const std::exception& failure) {
      g_nfs_log.Warning("Failed to open pipe [" + name + "]: " + failure.what());
    }
  }
  if (clientCount_ == 0)
    throw exc::runtime_exc_t("Failed to open pipe pool with VFS server");
  freeSlots_ = std::move(freeSlots);
}

void CRemoteFsConnector::DropClients() noexcept {
  allClients_.clear();
  freeClients_.clear();
  clientCount_ = 0;
}

boost::shared_ptr<synch::CUnnamedSemaphore> CRemoteFsConnector::FreeSlots() const {
  const std::lock_guard lock(lock_);
  if (clientCount_ == 0) {
    throw CVirtualFsExc("FS client is not connected to the restore agent. Base pipe name: [%1].", config_->pipe,
                        NFS3ERR_IO);
  }
  return freeSlots_;
}

CRemoteVfsClientHolder CRemoteFsConnector::GetClient() {
  const std::uint64_t end = platform::SystemClock().MonotonicMilliseconds() + limits_.freeClientMs;
  for (;;) {
    const auto freeSlots = FreeSlots();
    const std::uint64_t now = platform::SystemClock().MonotonicMilliseconds();
    if (!freeSlots->Wait(static_cast<std::uint32_t>(end - std::min(end, now))))
      throw CVirtualFsExc("Pipe pool is hanging. Base pipe name: [%1].", config_->pipe, NFS3ERR_IO);
    const std::lock_guard lock(lock_);
    // A count of a pool that was replaced meanwhile stands for none of the clients that are here now.
    if (freeSlots != freeSlots_ || freeClients_.empty())
      continue;
    const client_ptr_t client = freeClients_.front();
    freeClients_.erase(freeClients_.begin());
    return {shared_from_this(), client, connection_};
  }
}

void CRemoteFsConnector::GiveBack(const client_ptr_t& client, std::uint64_t connection) noexcept {
  const std::lock_guard lock(lock_);
  if (client->IsBroken() || connection != connection_ || clientCount_ == 0)
    return;
  freeClients_.push_back(client);
  freeSlots_->Release();
}

bool CRemoteFsConnector::IsConnected() const {
  const std::lock_guard lock(lock_);
  if (clientCount_ == 0)
    return false;
  const auto broken = std::count_if(allClients_.begin(), allClients_.end(),
                                    [](const client_ptr_t& client) { return client->IsBroken(); });
  return static_cast<std::uint32_t>(broken) != clientCount_;
}

void CRemoteFsConnector::Stop() noexcept {
  {
    const std::lock_guard lock(lock_);
    isStopped_ = true;
    DropClients();
    // Who waits for a client learns at once that none will come; the invoker's end waits for those callers.
    if (freeSlots_ && freeSlots_->Count() < Everyone)
      freeSlots_->Release(Everyone);
  }
  invoker_->Stop();
}
