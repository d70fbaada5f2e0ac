#include "service/context/svc_context.h"

#include <boost/make_shared.hpp>
#include <utility>

#include "config/address_checker.h"
#include "config/address_checker_factory.h"
#include "config/reg_config_ports.h"
#include "config/reg_config_root_folder.h"
#include "config/reg_options.h"
#include "foundation/exc.h"
#include "vfs/virtual_fs/virtual_fs.h"

namespace {

/// Keeps a factory installed while it lives.
class CInstalledFactory {
 public:
  explicit CInstalledFactory(boost::shared_ptr<CAddressCheckerFactory> factory) : factory_(std::move(factory)) {
    CAddressCheckerFactory::Install(factory_);
  }
  CInstalledFactory(const CInstalledFactory&) = delete;
  CInstalledFactory& operator=(const CInstalledFactory&) = delete;
  ~CInstalledFactory() { CAddressCheckerFactory::Withdraw(factory_); }

  const CAddressCheckerFactory& Factory() const { return *factory_; }

 private:
  const boost::shared_ptr<CAddressCheckerFactory> factory_;
};

using installed_factory_ptr = boost::shared_ptr<CInstalledFactory>;

/// Calls that run on while the context goes still make items: the factory stays until the last of them has ended.
boost::shared_ptr<CVirtualFs> MakeFs(const installed_factory_ptr& installed) {
  return {new CVirtualFs, [kept = installed](CVirtualFs* fs) mutable {
            delete fs;
            kept.reset();
          }};
}

}  // namespace

CSvcContext::CSvcContext() {
  try {
    Initialize();
  } catch (const std::exception& failure) {
    exc::ChainAndThrow("Failed to initialize", failure);
  }
}

CSvcContext::~CSvcContext() = default;

void CSvcContext::Initialize() {
  options_ = boost::make_shared<CRegOptions>(true);
  const auto installed =
      boost::make_shared<CInstalledFactory>(boost::make_shared<CAddressCheckerFactory>(!options_->IsIpAuthDisabled()));
  addressChecker_ = installed->Factory().CreateGlobalChecker();
  fs_ = MakeFs(installed);
  ports_ = boost::make_shared<CRegConfigPorts>(true);
  rootFolder_ = boost::make_shared<CRegConfigRootFolder>(true);
}
