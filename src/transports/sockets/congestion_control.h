// How fast the connections of a listener send.
#pragma once

#include <string>

/// The algorithm that the connections of a TCP socket use, such as "cubic"; empty when the system does not tell.
std::string CongestionControl(int socket);

/// For a socket that is to listen: its connections shall send as fast as the peer takes. An algorithm that paces
/// (BBR, where an administrator chose it for all of the machine) starts a timer for every 64 KiB and waits for it: made
/// for long lines, it halves what a data store on the same network gets. The system's usual algorithm takes its place;
/// any other choice stays as it is, and so does that of a route. Logged; a failure changes nothing else.
void AvoidPacing(int listener) noexcept;
