#include <asio/error.hpp>
#include <cerrno>

#include "platform/socket_errors.h"
#include "platform/tcp_client.h"

namespace platform {

SocketError ToSocketError(const asio::error_code& ec) {
  struct Row {
    asio::error_code code;
    int number;
    const char* description;
  };
  static const Row kRows[] = {
      {asio::error::connection_refused, wsa::kConnectionRefused,
       "Connection is forcefully rejected"},
      {asio::error::connection_reset, wsa::kConnectionReset,
       "Connection is reset by remote side"},
      {asio::error::broken_pipe, wsa::kConnectionReset,
       "Connection is reset by remote side"},
      {asio::error::timed_out, wsa::kTimedOut, "Connection timed out"},
      {asio::error::host_unreachable, wsa::kHostUnreachable,
       "No route to host"},
      {asio::error::network_unreachable, wsa::kNetworkUnreachable,
       "Network is unreachable"},
      {asio::error::network_down, wsa::kNetworkDown, "Network is down"},
      {asio::error::connection_aborted, wsa::kConnectionAborted,
       "Connection is aborted due to timeout or other failure"},
      {asio::error::address_in_use, wsa::kAddressInUse,
       "Address is in use"},
      {asio::error::no_buffer_space, wsa::kNoBufferSpace,
       "No buffer space is available"},
      {asio::error::not_connected, wsa::kNotConnected,
       "Socket is not connected"},
      {asio::error::shut_down, wsa::kShutdown, "Socket has been shut down"},
      {asio::error::invalid_argument, wsa::kInvalidArgument,
       "Invalid argument"},
      {asio::error::host_not_found, wsa::kHostNotFound,
       "Authoritative answer: host not found"},
      {asio::error::host_not_found_try_again, wsa::kTryAgain,
       "Non-authoritative answer: host not found"},
      {asio::error::no_recovery, wsa::kNoRecovery,
       "Non-recoverable errors"},
      {asio::error::no_data, wsa::kNoData,
       "Valid name, no data record of requested type"},
      {asio::error_code(EADDRNOTAVAIL, asio::system_category()),
       wsa::kAddressNotAvailable, "Address is not available"},
      {asio::error_code(EHOSTDOWN, asio::system_category()), wsa::kHostDown,
       "Host is down"},
  };
  for (const Row& row : kRows) {
    if (ec == row.code) return {row.number, row.description};
  }
  // The low BSD error numbers mean the same on Linux and, offset by 10000,
  // in Windows Sockets; anything else keeps the system's own text.
  const int value = ec.value();
  const int number = ec.category() == asio::system_category() && value > 0 &&
                             value < 35
                         ? 10000 + value
                         : 10000;
  return {number, ec.message()};
}

asio::error_code AddressNotAvailable() {
  return {EADDRNOTAVAIL, asio::system_category()};
}

bool ListenerReusesAddress() { return true; }

}  // namespace platform
