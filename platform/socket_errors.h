// Turning the OS's socket errors into Windows Sockets numbers and texts.
// Internal to the platform layer.
#ifndef KOVRAN_PLATFORM_SOCKET_ERRORS_H_
#define KOVRAN_PLATFORM_SOCKET_ERRORS_H_

#include <asio/error.hpp>
// windows.h, which Asio brings on Windows, makes Yield() a macro of its own.
#ifdef Yield
#undef Yield
#endif
#include <string>

namespace platform {

struct SocketError {
  int number;
  std::string description;
};

// The Windows Sockets number and a description for `ec`.
SocketError ToSocketError(const asio::error_code& ec);

// The system's own error for an address or port that cannot be used
// (EADDRNOTAVAIL, on Windows WSAEADDRNOTAVAIL).
asio::error_code AddressNotAvailable();

// Whether a listener may set SO_REUSEADDR. On POSIX it only lets a restarted
// program take its port back from connections in TIME_WAIT; on Windows it
// would let a second listener share a port another program holds.
bool ListenerReusesAddress();

}  // namespace platform

#endif  // KOVRAN_PLATFORM_SOCKET_ERRORS_H_
