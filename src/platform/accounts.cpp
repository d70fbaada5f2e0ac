#include "platform/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace platform {
namespace {

/// Asks one of the database's functions (result, buffer, length → errno) with a buffer that is long enough, and hands
/// the entry that was found, or null, to the taker while the buffer lives.
template <typename Entry, typename Ask, typename Take>
error_t AskDatabase(const Ask& ask, const Take& take) {
  constexpr std::size_t FirstLength = 4096;
  constexpr std::size_t LongestLength = std::size_t{64} * 1024 * 1024;
  Entry entry{};
  for (std::size_t length = FirstLength;; length *= 4) {
    std::vector<char> buffer(length);
    Entry* found = nullptr;
    const int failure = ask(&entry, buffer.data(), buffer.size(), &found);
    if (failure == ERANGE && length < LongestLength)
      continue;
    // Some sources tell a missing entry by a number of their own.
    if (failure != 0 && failure != ENOENT && failure != ESRCH)
      return ErrorFromErrno(failure);
    take(found);
    return error::Success;
  }
}

error_t FindUser(const std::string& account, std::optional<uid_t>& user, gid_t& group) {
  return AskDatabase<passwd>(
      [&](passwd* entry, char* buffer, std::size_t length, passwd** found) {
        return ::getpwnam_r(account.c_str(), entry, buffer, length, found);
      },
      [&](const passwd* found) {
        if (found == nullptr)
          return;
        user = found->pw_uid;
        group = found->pw_gid;
      });
}

}  // namespace

error_t FindUserId(const std::string& account, std::optional<std::uint32_t>& id) {
  id.reset();
  gid_t group = 0;
  return FindUser(account, id, group);
}

error_t IsGroupMember(const std::string& account, const std::string& group, bool& isMember) {
  isMember = false;
  std::optional<gid_t> wanted;
  error_t number =
      AskDatabase<::group>([&](::group* entry, char* buffer, std::size_t length,
                               ::group** found) { return ::getgrnam_r(group.c_str(), entry, buffer, length, found); },
                           [&](const ::group* found) {
                             if (found != nullptr)
                               wanted = found->gr_gid;
                           });
  std::optional<uid_t> user;
  gid_t primary = 0;
  if (number == error::Success && wanted)
    number = FindUser(account, user, primary);
  if (number != error::Success || !user)
    return number;
  // The call tells how many there are when they do not fit; they may change meanwhile.
  std::vector<gid_t> groups(64);
  for (;;) {
    int count = static_cast<int>(groups.size());
    if (::getgrouplist(account.c_str(), primary, groups.data(), &count) >= 0) {
      groups.resize(static_cast<std::size_t>(count));
      break;
    }
    groups.resize(std::max(static_cast<std::size_t>(count), groups.size() * 2));
  }
  isMember = std::find(groups.begin(), groups.end(), *wanted) != groups.end();
  return error::Success;
}

std::uint32_t OwnUserId() noexcept {
  return ::geteuid();
}

}  // namespace platform
