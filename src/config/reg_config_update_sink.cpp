#include "config/reg_config_update_sink.h"

#include <utility>

#include "config/reg_config.h"
#include "foundation/exc.h"
#include "platform/registry.h"

CRegConfigUpdateSink::CRegConfigUpdateSink(boost::shared_ptr<CRegConfig> config) : config_(std::move(config)) {}

CRegConfigUpdateSink::~CRegConfigUpdateSink() = default;

void CRegConfigUpdateSink::OnItemAdded(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                                       IFsItem& item) {
  SFsItemSpec spec;
  item.GetItemSpec(spec);
  OnItemAdded(parentFid, name, fid, spec);
}

void CRegConfigUpdateSink::OnItemAdded(std::uint64_t parentFid, const std::string& name, std::uint64_t fid,
                                       const SFsItemSpec& spec) {
  config_->SaveItem(parentFid, name, fid, spec);
}

void CRegConfigUpdateSink::OnItemDeleted(std::uint64_t fid, const GUID* mountUid) {
  config_->DeleteItem(fid, mountUid);
}

void CRegConfigUpdateSink::OnItemMoved(std::uint64_t fid, std::uint64_t parentFid, const std::string& name) {
  config_->MoveItem(fid, parentFid, name);
}

void CRegConfigUpdateSink::BeginBatch() {
  const platform::error_t error = platform::registry_t::Instance().Begin();
  if (error == platform::error::Success)
    return;
  platform::registry_t::Instance().Rollback();
  throw exc::win_sys_exc_t("Failed to begin a transaction of the registry.", error);
}

void CRegConfigUpdateSink::CommitBatch() {
  const platform::error_t error = platform::registry_t::Instance().Commit();
  if (error != platform::error::Success)
    throw exc::win_sys_exc_t("Failed to store the changes of the NFS items in the registry.", error);
}

void CRegConfigUpdateSink::RollbackBatch() noexcept {
  platform::registry_t::Instance().Rollback();
}

CRegConfigUpdateSink::CBatch::CBatch(CRegConfigUpdateSink& sink) : sink_(sink), open_(true) {
  sink_.BeginBatch();
}

CRegConfigUpdateSink::CBatch::~CBatch() {
  if (open_)
    sink_.RollbackBatch();
}

void CRegConfigUpdateSink::CBatch::Commit() {
  open_ = false;
  sink_.CommitBatch();
}
