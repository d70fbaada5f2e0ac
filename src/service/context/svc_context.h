// The root object of the running service.
#pragma once

#include <boost/shared_ptr.hpp>

class CRegConfigPorts;
class CRegConfigRootFolder;
class CRegOptions;
class CVirtualFs;
class IAddressChecker;

/// Owns the long-lived services and hands them out. Constant after construction, any thread; who took a service keeps
/// it alive. The process's address checker factory is installed from construction until the file system has gone.
class CSvcContext {
 public:
  /// Brings all up in the order of the members. A failure throws "Failed to initialize" over its cause and leaves
  /// nothing behind.
  CSvcContext();
  CSvcContext(const CSvcContext&) = delete;
  CSvcContext& operator=(const CSvcContext&) = delete;
  ~CSvcContext();

  boost::shared_ptr<CRegOptions> GetOptions() const { return options_; }
  boost::shared_ptr<IAddressChecker> GetAddressChecker() const { return addressChecker_; }
  boost::shared_ptr<CVirtualFs> GetFs() const { return fs_; }
  boost::shared_ptr<CRegConfigPorts> GetPorts() const { return ports_; }
  boost::shared_ptr<CRegConfigRootFolder> GetRootFolder() const { return rootFolder_; }

 private:
  void Initialize();

  boost::shared_ptr<CRegOptions> options_;
  boost::shared_ptr<IAddressChecker> addressChecker_;
  boost::shared_ptr<CVirtualFs> fs_;
  boost::shared_ptr<CRegConfigPorts> ports_;
  boost::shared_ptr<CRegConfigRootFolder> rootFolder_;
};
