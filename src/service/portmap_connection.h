// The way to the portmapper of this machine.
#pragma once

#include <memory>

#include "rpc/rpc_client_stream.h"

/// A stream to 127.0.0.1, port 111, from a reserved source port when the process may: a foreign portmapper takes
/// registrations from no other. Throws when nobody listens.
std::unique_ptr<IRpcClientStream> ConnectToPortmapper();
