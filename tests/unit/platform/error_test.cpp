#include "platform/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace {

using platform::ErrorFromErrno;
using platform::ErrorText;
using platform::SocketErrorFromErrno;

constexpr int PastAllErrnos = 140;

TEST(Error, SystemFailuresHaveTheNumbersThatTheyHaveInWin32) {
  const std::map<int, platform::error_t> expected{
      {0, 0},           {ENOENT, 2},    {ENOTDIR, 3},   {EMFILE, 4},         {ENFILE, 4},      {EACCES, 5},
      {EPERM, 5},       {EROFS, 5},     {ETXTBSY, 5},   {EISDIR, 5},         {EBADF, 6},       {ENOMEM, 8},
      {EXDEV, 17},      {EBUSY, 32},    {EINVAL, 87},   {ENOSPC, 112},       {EDQUOT, 112},    {ENOTEMPTY, 145},
      {EEXIST, 183},    {EFBIG, 223},   {ENOSYS, 120},  {ENAMETOOLONG, 206}, {ECANCELED, 995}, {EINTR, 995},
      {EILSEQ, 1113},   {EIO, 1117},    {ESTALE, 1627}, {EOPNOTSUPP, 50},    {ELOOP, 1921},    {EPIPE, 109},
      {ETIMEDOUT, 121}, {EMLINK, 1142}, {EAGAIN, 170},  {ECONNREFUSED, 1225}};
  for (const auto& [errnoValue, number] : expected)
    EXPECT_EQ(ErrorFromErrno(errnoValue), number) << std::strerror(errnoValue);
}

TEST(Error, SocketFailuresHaveTheNumbersOfWinsock) {
  const std::map<int, platform::error_t> expected{
      {0, 0},
      {EINTR, 10004},
      {EBADF, 10009},
      {EACCES, 10013},
      {EPERM, 10013},
      {EFAULT, 10014},
      {EINVAL, 10022},
      {EMFILE, 10024},
      {EWOULDBLOCK, 10035},
      {EINPROGRESS, 10036},
      {EALREADY, 10037},
      {ENOTSOCK, 10038},
      {EMSGSIZE, 10040},
      {EAFNOSUPPORT, 10047},
      {EADDRINUSE, 10048},
      {EADDRNOTAVAIL, 10049},
      {ENETDOWN, 10050},
      {ENETUNREACH, 10051},
      {ENETRESET, 10052},
      {ECONNABORTED, 10053},
      {ECONNRESET, 10054},
      {EPIPE, 10054},
      {ENOBUFS, 10055},
      {EISCONN, 10056},
      {ENOTCONN, 10057},
      {ESHUTDOWN, 10058},
      {ETIMEDOUT, 10060},
      {ECONNREFUSED, 10061},
      {EHOSTDOWN, 10064},
      {EHOSTUNREACH, 10065},
      {EIO, 1117},  // No failure of sockets.
  };
  for (const auto& [errnoValue, number] : expected)
    EXPECT_EQ(SocketErrorFromErrno(errnoValue), number) << std::strerror(errnoValue);
}

TEST(Error, EveryErrnoIsAFailureWithAText) {
  for (int errnoValue = 1; errnoValue < PastAllErrnos; ++errnoValue) {
    for (const platform::error_t number : {ErrorFromErrno(errnoValue), SocketErrorFromErrno(errnoValue)}) {
      EXPECT_NE(number, 0U) << std::strerror(errnoValue);
      // Whatever is produced is in the table of texts.
      EXPECT_EQ(ErrorText(number).find("Unknown"), std::string::npos) << number;
      EXPECT_EQ(ErrorText(number).find_first_of("\r\n"), std::string::npos) << number;
      EXPECT_FALSE(ErrorText(number).empty()) << number;
    }
  }
  EXPECT_NE(ErrorFromErrno(-1), 0U);
  EXPECT_NE(ErrorFromErrno(1000000), 0U);
}

TEST(Error, AWrappedNumberHasItsText) {
  EXPECT_EQ(ErrorText(0x80070005), ErrorText(5));
  EXPECT_EQ(ErrorText(0x80070000), ErrorText(0));
}

TEST(Error, UnknownNumbersStillHaveAText) {
  EXPECT_EQ(ErrorText(4000000000), "Unknown error 4000000000");
  EXPECT_EQ(ErrorText(99999), "Unknown error 99999");
}

TEST(Error, LastErrorIsThatOfErrno) {
  errno = ENOENT;
  EXPECT_EQ(platform::LastError(), 2U);
}

}  // namespace
