// kelvo-nfsctl: manages the running NFS service.
#include <exception>
#include <iostream>

#include "kelvo-nfsctl/command_line.h"

int main(int argc, char** argv) {
  try {
    return nfsctl::Run({argv + 1, argv + argc}, nfsctl::MakeService, std::cout, std::cerr);
  } catch (const std::exception& failure) {
    std::cerr << "kelvo-nfsctl: " << failure.what() << '\n';
    return nfsctl::Failed;
  }
}
