#include "platform/accounts.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

namespace {

TEST(Accounts, RootIsKnown) {
  std::optional<std::uint32_t> id;
  EXPECT_EQ(platform::FindUserId("root", id), 0U);
  EXPECT_EQ(id, 0U);
  bool isMember = false;
  EXPECT_EQ(platform::IsGroupMember("root", "root", isMember), 0U);
  EXPECT_TRUE(isMember);
}

TEST(Accounts, WhoIsInNoSuchGroupIsNoMember) {
  bool isMember = true;
  EXPECT_EQ(platform::IsGroupMember("nobody", "root", isMember), 0U);
  EXPECT_FALSE(isMember);
  isMember = true;
  EXPECT_EQ(platform::IsGroupMember("root", "there is no such group", isMember), 0U);
  EXPECT_FALSE(isMember);
}

TEST(Accounts, WhatDoesNotExistIsNoFailure) {
  std::optional<std::uint32_t> id = 5;
  EXPECT_EQ(platform::FindUserId("there is no such account", id), 0U);
  EXPECT_FALSE(id);
  bool isMember = true;
  EXPECT_EQ(platform::IsGroupMember("there is no such account", "root", isMember), 0U);
  EXPECT_FALSE(isMember);
}

TEST(Accounts, FurtherGroupsCount) {
  // Any account of this machine that is listed in a group which is not its own.
  bool isMember = false;
  ::setgrent();
  for (const group* entry = ::getgrent(); entry != nullptr; entry = ::getgrent()) {
    if (entry->gr_mem[0] == nullptr)
      continue;
    const std::string group = entry->gr_name;
    const std::string account = entry->gr_mem[0];
    if (::getpwnam(account.c_str()) == nullptr)
      continue;
    EXPECT_EQ(platform::IsGroupMember(account, group, isMember), 0U);
    EXPECT_TRUE(isMember) << account << " in " << group;
    break;
  }
  ::endgrent();
}

TEST(Accounts, TheProcessHasAUser) {
  EXPECT_EQ(platform::OwnUserId(), ::geteuid());
}

}  // namespace
