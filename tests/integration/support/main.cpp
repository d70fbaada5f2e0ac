#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "integration/support/namespaces.h"

int main(int argc, char** argv) {
  bool listing = false;
  for (int i = 1; i < argc; ++i)
    listing = listing || std::strcmp(argv[i], "--gtest_list_tests") == 0;
  std::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleTest(&argc, argv);
  if (!listing)
    test::EnterNamespaces();
  return RUN_ALL_TESTS();
}
