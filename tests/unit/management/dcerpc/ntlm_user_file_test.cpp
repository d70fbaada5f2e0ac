#include "management/dcerpc/ntlm_user_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "management/dcerpc/md4.h"
#include "support/temp_dir.h"

namespace {

using dcerpc::CNtlmUserFile;
using dcerpc::Md4;
using dcerpc::WithoutPasswords;

std::string Md4Hex(std::string_view text) {
  std::string hex;
  for (const std::uint8_t byte : Md4({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()})) {
    constexpr std::string_view Digits = "0123456789abcdef";
    hex += Digits[byte >> 4];
    hex += Digits[byte & 0xF];
  }
  return hex;
}

// RFC 1320, A.5.
TEST(Md4Test, GivesTheKnownDigests) {
  EXPECT_EQ(Md4Hex(""), "31d6cfe0d16ae931b73c59d7e0c089c0");
  EXPECT_EQ(Md4Hex("a"), "bde52cb31de33e46245e05fbdbd6fb24");
  EXPECT_EQ(Md4Hex("abc"), "a448017aaf21d8525fc10ae87aa6729d");
  EXPECT_EQ(Md4Hex("message digest"), "d9130a8164549fe818874806e1c7014b");
  EXPECT_EQ(Md4Hex("abcdefghijklmnopqrstuvwxyz"), "d79e1c308aa5bbcdeea8ed63df412da9");
  EXPECT_EQ(Md4Hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "043f8582f241db351ce627e153e7f0e4");
  EXPECT_EQ(Md4Hex("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "e33b4ddc9c38f2199c3e7b164fcc0536");
}

TEST(NtlmUserFileTest, DigestsStandForPasswords) {
  // The digest of "secret" was made with another implementation.
  const std::string secret = ":0:00000000000000000000000000000000:878D8014606CDA29677A44EFA1353FC7:\n";
  EXPECT_EQ(WithoutPasswords("TEST:admin:secret\n"), "TEST\\admin" + secret);
  EXPECT_EQ(WithoutPasswords("TEST:admin:secret"), "TEST\\admin" + secret);
  EXPECT_EQ(WithoutPasswords("TEST:admin:secret\r\n:x:secret\n"), "TEST\\admin" + secret + "\\x" + secret);
  EXPECT_EQ(WithoutPasswords(""), "");
}

TEST(NtlmUserFileTest, OtherLinesStayAsTheyAre) {
  const std::string long1(1100, 'a');
  const std::string long2(980, 'a');
  for (const std::string& line :
       {std::string("# TEST:admin:secret"), std::string("nothing"), std::string("TEST:admin"),
        std::string("TEST\\admin:0:00000000000000000000000000000000:878D8014606CDA29677A44EFA1353FC7:"),
        std::string("A\\B:admin:secret"), std::string("TEST:admin:"), std::string("TEST:admin:\xff"),
        std::string("TEST:ad\0min:secret", 18), "TEST:" + long1 + ":secret", "TEST:" + long2 + ":secret"})
    EXPECT_EQ(WithoutPasswords(line + "\n"), line + "\n");
}

TEST(NtlmUserFileTest, OneCopyServesUntilTheFileChanges) {
  const test::TempDir folder;
  const std::string path = folder / "users";
  const test::ScopedEnvironment environment("NTLM_USER_FILE", path);
  CNtlmUserFile file;
  EXPECT_EQ(file.Usable()->path, "/dev/null");
  const auto write = [&](const std::string& text) { std::ofstream(path, std::ios::trunc) << text; };
  const auto contentOf = [](const std::string& name) {
    std::ostringstream text;
    text << std::ifstream(name).rdbuf();
    return text.str();
  };
  write("TEST:admin:secret\n");
  ::chmod(path.c_str(), 0600);
  const auto first = file.Usable();
  EXPECT_EQ(contentOf(first->path), WithoutPasswords("TEST:admin:secret\n"));
  EXPECT_EQ(file.Usable(), first);
  struct stat info {};
  ASSERT_EQ(::fstat(first->memory.Get(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600U);
  write("TEST:admin:secre2\n");
  EXPECT_EQ(contentOf(file.Usable()->path), WithoutPasswords("TEST:admin:secre2\n"));
  // Whoever is in a handshake still has his.
  EXPECT_EQ(contentOf(first->path), WithoutPasswords("TEST:admin:secret\n"));
  write("");
  EXPECT_EQ(file.Usable()->path, "/dev/null");
}

}  // namespace
