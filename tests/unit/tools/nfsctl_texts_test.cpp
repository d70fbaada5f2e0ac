// Endpoints, sizes, tables and passwords.
#include <gmock/gmock.h>

#include <fstream>

#include "foundation/exc.h"
#include "kelvo-nfsctl/endpoint.h"
#include "kelvo-nfsctl/report.h"
#include "kelvo-nfsctl/service.h"
#include "kelvo-nfsctl/sizes.h"
#include "kelvo-nfsctl/usage_error.h"
#include "support/temp_dir.h"

using nfsctl::FormatSize;
using nfsctl::ParseEndpoint;
using nfsctl::ParseSize;
using nfsctl::SEndpoint;
using nfsctl::usage_error_t;

namespace {

TEST(NfsctlEndpoint, Forms) {
  EXPECT_EQ(ParseEndpoint("unix:/run/x"), (SEndpoint{"/run/x", "", 6161}));
  EXPECT_EQ(ParseEndpoint("tcp:host"), (SEndpoint{"", "host", 6161}));
  EXPECT_EQ(ParseEndpoint("tcp:10.0.0.1:1"), (SEndpoint{"", "10.0.0.1", 1}));
  EXPECT_EQ(ParseEndpoint("tcp:host:65535"), (SEndpoint{"", "host", 65535}));
  EXPECT_EQ(ParseEndpoint("tcp:::1"), (SEndpoint{"", "::1", 6161}));
  EXPECT_EQ(ParseEndpoint("tcp:[::1]"), (SEndpoint{"", "::1", 6161}));
  EXPECT_EQ(ParseEndpoint("tcp:[::1]:77"), (SEndpoint{"", "::1", 77}));
}

TEST(NfsctlEndpoint, WhatIsNone) {
  for (const char* const text : {"", "host", "unix:", "tcp:", "tcp::1", "tcp:h:", "tcp:h:0", "tcp:h:65536", "tcp:h:x",
                                 "tcp:[::1", "tcp:[::1]x", "tcp:[::1]:", "tcp:[]", "TCP:h"})
    EXPECT_THROW(ParseEndpoint(text), usage_error_t) << text;
}

TEST(NfsctlSizes, Reading) {
  EXPECT_EQ(ParseSize("0"), 0U);
  EXPECT_EQ(ParseSize("18446744073709551615"), 18446744073709551615U);
  EXPECT_EQ(ParseSize("7b"), 7U);
  EXPECT_EQ(ParseSize("1k"), 1024U);
  EXPECT_EQ(ParseSize("1KiB"), 1024U);
  EXPECT_EQ(ParseSize("1kB"), 1000U);
  EXPECT_EQ(ParseSize("10GiB"), 10737418240U);
  EXPECT_EQ(ParseSize("10 gib"), 10737418240U);
  EXPECT_EQ(ParseSize("1.5T"), 1649267441664U);
  EXPECT_EQ(ParseSize("0.1MB"), 100000U);
  EXPECT_EQ(ParseSize("15EiB"), 15ULL << 60);
}

TEST(NfsctlSizes, WhatIsNone) {
  for (const char* const text : {"", "x", "-1", "1x", "GiB", "1.", ".5G", "1.2.3G", "1,5G", "16EiB", "1 G B", "1Gi",
                                 "18446744073709551616", "0x10", "1.0000000001G"})
    EXPECT_THROW(ParseSize(text), usage_error_t) << text;
}

TEST(NfsctlSizes, Printing) {
  EXPECT_EQ(FormatSize(0), "0 bytes");
  EXPECT_EQ(FormatSize(1), "1 byte");
  EXPECT_EQ(FormatSize(1023), "1023 bytes");
  EXPECT_EQ(FormatSize(1024), "1 KiB (1024 bytes)");
  EXPECT_EQ(FormatSize(1536), "1.5 KiB (1536 bytes)");
  EXPECT_EQ(FormatSize((1 << 20) - 1), "1023.99 KiB (1048575 bytes)");
  EXPECT_EQ(FormatSize(10737418240), "10 GiB (10737418240 bytes)");
  EXPECT_EQ(FormatSize(18446744073709551615U), "15.99 EiB (18446744073709551615 bytes)");
}

TEST(NfsctlReport, ColumnsAreAsWideAsTheirCells) {
  EXPECT_EQ(nfsctl::FormatTable({{"A", "B"}, {"\xC3\xA4\xC3\xB6\xC3\xBC", "x"}, {"", "y"}}),
            "A    B\n\xC3\xA4\xC3\xB6\xC3\xBC  x\n     y\n");
}

TEST(NfsctlPassword, FileThenVariable) {
  const test::TempDir folder;
  std::ofstream(folder / "password") << "se cret\r\nmore\n";
  const test::ScopedEnvironment variable("KELVO_PASSWORD", "other");
  EXPECT_EQ(nfsctl::ReadPassword("u", folder / "password"), "se cret");
  EXPECT_EQ(nfsctl::ReadPassword("u", ""), "other");
  EXPECT_THROW(nfsctl::ReadPassword("u", folder / "missing"), exc::runtime_exc_t);
}

}  // namespace
