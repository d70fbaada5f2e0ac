#include <pwd.h>

#include <cerrno>
#include <vector>

#include "foundation/exc.h"
#include "management/dcerpc/account_map.h"
#include "platform/error.h"

namespace dcerpc {
namespace {

constexpr std::size_t FirstBufferSize = 4096;
constexpr std::size_t MaxBufferSize = 16U << 20;

class CSystemAccounts : public IAccountDatabase {
 public:
  bool HasAccount(const std::string& name) const override {
    std::vector<char> texts(FirstBufferSize);
    for (;;) {
      passwd entry{};
      passwd* found = nullptr;
      const int result = ::getpwnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found);
      // The numbers are what some name services say of a name that they do not know.
      if (result == 0 || result == ENOENT || result == ESRCH)
        return found != nullptr;
      if (result == ERANGE && texts.size() < MaxBufferSize) {
        texts.resize(texts.size() * 2);
      } else if (result != EINTR) {
        throw exc::win_sys_exc_t("Failed to look up an account.", platform::ErrorFromErrno(result));
      }
    }
  }
};

}  // namespace

std::unique_ptr<IAccountDatabase> MakeSystemAccounts() {
  return std::make_unique<CSystemAccounts>();
}

}  // namespace dcerpc
