#pragma once

#include <string>

namespace Ravel::host {

constexpr const char* kDefaultSocket = "/run/ravel/ravel.sock";

// Client side of the control socket: one request line, the reply is everything the daemon
// writes until it closes the connection. Throws std::runtime_error with a one-line message
// when the daemon cannot be reached.
std::string controlRequest(const std::string& socketPath, const std::string& request,
                           double timeoutSeconds = 10.0);

// Listening side. Returns the listening descriptor (non-blocking, close-on-exec, mode 0600).
// Throws std::runtime_error when another daemon already answers on the path; a stale socket
// file left by a dead daemon is replaced.
int controlListen(const std::string& socketPath);

}  // namespace Ravel::host
