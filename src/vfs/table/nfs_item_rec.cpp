#include "vfs/table/nfs_item_rec.h"

#include <boost/smart_ptr/shared_ptr.hpp>
#include <utility>

#include "foundation/exc.h"

CNfsItemRec::CNfsItemRec(std::string itemName, std::uint64_t itemParentFid, boost::shared_ptr<CNfsShareInfo> itemShare,
                         const boost::shared_ptr<IFsItem>& item, const GUID& mountUid)
    : name(std::move(itemName)),
      parentFid(itemParentFid),
      share(std::move(itemShare)),
      mountUid_(mountUid),
      file_(boost::dynamic_pointer_cast<IFsFile>(item)) {
  if (file_)
    return;
  auto folder = boost::dynamic_pointer_cast<IFsFolder>(item);
  if (!folder)
    throw exc::runtime_exc_t("Unexpected type of the FS item");
  folder_ = std::make_unique<SNfsFolderSlot>();
  folder_->mirrors.push_back(folder);
  folder_->primary = std::move(folder);
}

boost::shared_ptr<IFsItem> CNfsItemRec::Item() const {
  if (file_)
    return file_;
  return folder_->primary;
}

boost::shared_ptr<IFsItem> CNfsItemRec::ItemForMount(const GUID& mountUid) const {
  if (file_) {
    if (!mountUid_.IsNil() && mountUid_ == mountUid)
      return file_;
    return {};
  }
  for (const auto& mirror : folder_->mirrors) {
    GUID mirrorUid;
    if (mirror->GetMountUid(mirrorUid) && mirrorUid == mountUid)
      return mirror;
  }
  return {};
}
