#include "remotefs/mounts/remote_fs_health_check_thread.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "foundation/log.h"
#include "platform/clock.h"
#include "remotefs/mounts/remote_fs_mounter.h"

namespace {

void CheckMount(CRemoteFsMounter& mounter, const GUID& mountUid, CRemoteFsConnector& connector) {
  try {
    if (!connector.Reconnect()) {
      mounter.ReportLost(mountUid, *connector.GetConfig());
      return;
    }
    g_nfs_log.Info("Reconnecting RFS items.");
    mounter.ReconnectTree(mounter.ResolveMountRootFid(mountUid), mountUid);
    g_nfs_log.Info("Items were reconnected.");
  } catch (const std::exception& failure) {
    g_nfs_log.Warning(
        exc::FormatText("Failed to reconnect remote FS. FS mount point: [%1].", connector.GetConfig()->pipe), failure);
  }
}

void CheckMounts(CRemoteFsMounter& mounter) {
  try {
    CRemoteFsMounter::connectors_t mounts;
    mounter.GetInactiveMounts(mounts);
    for (const auto& [uid, connector] : mounts)
      CheckMount(mounter, uid, *connector);
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Health check procedure has failed.", failure);
  }
}

}  // namespace

/// What the thread uses: one that is left behind keeps it.
struct CRemoteFsHealthCheckThread::shared_t {
  shared_t(boost::shared_ptr<CRemoteFsMounter> itsMounter, SHealthCheckWaits itsWaits)
      : mounter(std::move(itsMounter)), waits(std::move(itsWaits)) {}

  const boost::shared_ptr<CRemoteFsMounter> mounter;
  const SHealthCheckWaits waits;
  synch::manual_event_t stopEvent;

  /// Throws term_exc_t when it is told to stop.
  void WaitForPass() {
    for (;;) {
      bool isStopping = false;
      try {
        isStopping = waits.wait(stopEvent, waits.periodMs);
      } catch (const std::exception& failure) {
        g_nfs_log.Warning("HealthCheck: WaitForSingleObject() failed.", failure);
        platform::Clock().Sleep(waits.retryMs);
        continue;
      }
      if (isStopping)
        throw exc::term_exc_t();
      return;
    }
  }
};

CRemoteFsHealthCheckThread::CRemoteFsHealthCheckThread(boost::shared_ptr<CRemoteFsMounter> mounter,
                                                       const SHealthCheckWaits& waits)
    : stopLimitMs_(waits.stopLimitMs), shared_(boost::make_shared<shared_t>(std::move(mounter), waits)) {
  thread_ = std::make_unique<synch::thread_t>("Health check thread", [shared = shared_] { ThreadProc(*shared); });
}

CRemoteFsHealthCheckThread::~CRemoteFsHealthCheckThread() {
  Stop();
}

void CRemoteFsHealthCheckThread::ThreadProc(shared_t& shared) {
  try {
    for (;;) {
      shared.WaitForPass();
      CheckMounts(*shared.mounter);
    }
  } catch (const exc::term_exc_t&) {
    g_nfs_log.Info("Backup mounts health check thread was stopped.");
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Fatal error of the backup mounts health check thread.", failure);
  }
}

void CRemoteFsHealthCheckThread::Stop() noexcept {
  if (!thread_)
    return;
  try {
    g_nfs_log.Info("Sending signal to stop health check thread.");
    shared_->stopEvent.Set();
    if (!thread_->WaitFor(stopLimitMs_))
      thread_->Detach();
    g_nfs_log.Info("Health check thread is stopped.");
  } catch (const std::exception& failure) {
    g_nfs_log.Error("Failed to stop the health check thread.", failure);
  }
  thread_.reset();
  shared_.reset();
}
