// The world that a test process runs in.
#pragma once

namespace test {

/// Moves the process into network and mount namespaces of its own (through a user namespace when it is not root),
/// brings loopback up and puts a private tmpfs on /run. Ends the process with a sentence when the kernel refuses.
void EnterNamespaces();

}  // namespace test
