// The OS's socket errors as the server link sees them: Windows Sockets
// numbers, each with a description.
#include "platform/socket_errors.h"

#include <gtest/gtest.h>

#include <asio/error.hpp>
#include <cerrno>

#include "platform/tcp_client.h"

namespace platform {
namespace {

TEST(SocketErrorsTest, OsErrorsBecomeWindowsSocketsNumbers) {
  const struct {
    asio::error_code code;
    int number;
  } cases[] = {
      {asio::error::connection_refused, wsa::kConnectionRefused},
      {asio::error::connection_reset, wsa::kConnectionReset},
      {asio::error::broken_pipe, wsa::kConnectionReset},
      {asio::error::timed_out, wsa::kTimedOut},
      {asio::error::host_unreachable, wsa::kHostUnreachable},
      {asio::error::network_unreachable, wsa::kNetworkUnreachable},
      {asio::error::host_not_found, wsa::kHostNotFound},
      {asio::error::host_not_found_try_again, wsa::kTryAgain},
      {asio::error_code(EADDRNOTAVAIL, asio::system_category()),
       wsa::kAddressNotAvailable},
      // Low BSD numbers keep their meaning, offset by 10000.
      {asio::error_code(EACCES, asio::system_category()), 10013},
      // Anything else still gets a number that is neither reset nor refused.
      {asio::error_code(ENOTRECOVERABLE, asio::system_category()), 10000},
  };
  for (const auto& c : cases) {
    const SocketError e = ToSocketError(c.code);
    EXPECT_EQ(e.number, c.number) << c.code.message();
    EXPECT_FALSE(e.description.empty()) << c.code.message();
  }
}

}  // namespace
}  // namespace platform
