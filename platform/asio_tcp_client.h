// The TCP client on Asio. Internal to the platform layer.
#ifndef KOVRAN_PLATFORM_ASIO_TCP_CLIENT_H_
#define KOVRAN_PLATFORM_ASIO_TCP_CLIENT_H_

#include <asio/io_context.hpp>
#include <memory>

#include "platform/tcp_client.h"

namespace platform {

// Received bytes the client holds unread at most; past that it stops reading
// until the program takes them, so a hostile peer cannot fill the memory.
inline constexpr std::size_t kMaxUnreadBytes = 4u << 20;

std::unique_ptr<TcpClient> NewAsioTcpClient(asio::io_context& io);

}  // namespace platform

#endif  // KOVRAN_PLATFORM_ASIO_TCP_CLIENT_H_
