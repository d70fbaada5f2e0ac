#include "vfs/table/host_folder_path.h"

#include <boost/smart_ptr/shared_ptr.hpp>

#include "hostfs/host_fs_folder.h"
#include "platform/text.h"
#include "vfs/items/virtual_fs_exc.h"
#include "vfs/table/fs_items_tab.h"

boost::shared_ptr<CHostFsFolder> GetHostFolder(const CFsItemsTab& tab, std::uint64_t fid) {
  auto folder = boost::dynamic_pointer_cast<CHostFsFolder>(GetRequiredItem(tab, fid));
  if (!folder)
    throw exc::runtime_exc_t("NFS item [%1] does not refer to local folder.", tab.GetItemPath(fid));
  return folder;
}

std::uint64_t SyncHostFolderPath(CFsItemsTab& tab, const GUID& shareUid, const std::string& relativePath) {
  std::uint64_t fid = InvalidFid;
  boost::shared_ptr<CNfsShareCfg> cfg;
  if (!tab.GetShareCfg(shareUid, fid, cfg))
    return InvalidFid;

  const auto components = platform::SplitPath(relativePath);
  for (const std::string_view component : components) {
    if (component == "." || component == "..")
      throw CVirtualFsExc(NFS3ERR_INVAL);
  }
  for (const std::string_view component : components) {
    const std::string name(component);
    const auto folder = boost::dynamic_pointer_cast<IFsFolder>(tab.GetItem(fid));
    const std::uint64_t known = tab.LookupChild(fid, name);
    const auto item = tab.GetItem(known);
    const auto onDisk = folder ? folder->OpenChild(name) : boost::shared_ptr<IFsItem>();
    if (!onDisk) {
      // But for what a client has made since the look.
      if (known != InvalidFid)
        tab.RemoveChildIf(fid, name, known, item.get());
      return InvalidFid;
    }
    fid = known != InvalidFid ? known : tab.AddFoundItem(fid, name, onDisk, folder.get());
  }
  return fid;
}
