// kelvo-perflog: shows what a performance log of the NFS service holds.
#include <exception>
#include <iostream>

#include "kelvo-perflog/command_line.h"

int main(int argc, char** argv) {
  try {
    std::ios::sync_with_stdio(false);
    return perflog::Run({argv + 1, argv + argc}, std::cin, std::cout, std::cerr);
  } catch (const std::exception& failure) {
    std::cerr << "kelvo-perflog: " << failure.what() << '\n';
    return perflog::Failed;
  }
}
