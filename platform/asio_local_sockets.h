// The local ports' sockets on Asio. Internal to the platform layer; shared by
// every real platform, so it holds no OS call of its own.
#ifndef KOVRAN_PLATFORM_ASIO_LOCAL_SOCKETS_H_
#define KOVRAN_PLATFORM_ASIO_LOCAL_SOCKETS_H_

#include <asio/io_context.hpp>
#include <memory>

#include "platform/local_sockets.h"

namespace platform {

// How long a listener waits before accepting again after the system ran out
// of descriptors or memory; accepting at once would only spin.
inline constexpr int kAcceptBackoffMs = 100;

std::unique_ptr<UdpSocket> NewAsioUdpSocket(asio::io_context& io);

std::unique_ptr<TcpListener> NewAsioTcpListener(asio::io_context& io);

}  // namespace platform

#endif  // KOVRAN_PLATFORM_ASIO_LOCAL_SOCKETS_H_
