#include <asio/error.hpp>
#include <windows.h>

#include <string>

#include "platform/socket_errors.h"

namespace platform {

namespace {

// The system's own description of a Windows Sockets error, in the ANSI code
// page like the program's other texts; Asio's text for some of these is
// only "system error".
std::string Describe(int number) {
  char buffer[512];
  DWORD n = ::FormatMessageA(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
      static_cast<DWORD>(number), 0, buffer, sizeof buffer, nullptr);
  while (n > 0 && (buffer[n - 1] == '\r' || buffer[n - 1] == '\n' ||
                   buffer[n - 1] == ' ' || buffer[n - 1] == '.')) {
    --n;
  }
  if (n == 0) return "Windows Sockets error " + std::to_string(number);
  return std::string(buffer, n);
}

}  // namespace

// Asio reports socket errors by their native Windows Sockets numbers.
SocketError ToSocketError(const asio::error_code& ec) {
  const int value = ec.value();
  if (value >= 10000 && value < 12000) return {value, Describe(value)};
  return {10000, ec.message()};
}

asio::error_code AddressNotAvailable() {
  return {WSAEADDRNOTAVAIL, asio::system_category()};
}

// SO_REUSEADDR on Windows would let a listener share a port that another
// program holds.
bool ListenerReusesAddress() { return false; }

}  // namespace platform
