#include "platform/udp_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

namespace deskline::platform {
namespace {

sockaddr_in ToSockaddr(UdpEndpoint endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(endpoint.ip);
  address.sin_port = htons(endpoint.port);
  return address;
}

UdpEndpoint FromSockaddr(const sockaddr_in& address) {
  return UdpEndpoint{ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

}  // namespace

UdpSocket::UdpSocket(UdpSocket&& other) noexcept
    : fd_(other.fd_.exchange(-1)), shut_down_(other.shut_down_.exchange(false)) {}

UdpSocket& UdpSocket::operator=(UdpSocket&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_.exchange(-1);
    shut_down_ = other.shut_down_.exchange(false);
  }
  return *this;
}

bool UdpSocket::Open(UdpEndpoint local) {
  if (fd_ >= 0) return false;
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const sockaddr_in address = ToSockaddr(local);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    ::close(fd);
    return false;
  }
  shut_down_ = false;
  fd_ = fd;
  return true;
}

std::optional<UdpEndpoint> UdpSocket::LocalEndpoint() const {
  const int fd = fd_;
  if (fd < 0) return std::nullopt;
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      address.sin_family != AF_INET) {
    return std::nullopt;
  }
  return FromSockaddr(address);
}

bool UdpSocket::SendTo(std::span<const std::byte> payload, UdpEndpoint to) const {
  const int fd = fd_;
  if (fd < 0 || shut_down_) return false;
  const sockaddr_in address = ToSockaddr(to);
  ssize_t sent;
  do {
    sent = ::sendto(fd, payload.data(), payload.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (sent < 0 && errno == EINTR);
  return sent >= 0 && static_cast<std::size_t>(sent) == payload.size();
}

std::optional<std::size_t> UdpSocket::Receive(std::span<std::byte> buffer,
                                              UdpEndpoint* from) const {
  return ReceiveFor(buffer, from, -1, nullptr);
}

std::optional<std::size_t> UdpSocket::ReceiveFor(std::span<std::byte> buffer, UdpEndpoint* from,
                                                 int timeout_ms, bool* timed_out) const {
  if (timed_out) *timed_out = false;
  const int fd = fd_;
  if (fd < 0 || shut_down_) return std::nullopt;

  using SteadyClock = std::chrono::steady_clock;
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int flags = 0;
    if (timeout_ms >= 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
      const int wait_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
      pollfd entry{fd, POLLIN, 0};
      const int ready = ::poll(&entry, 1, wait_ms);
      if (shut_down_) return std::nullopt;
      if (ready < 0) {
        if (errno == EINTR) continue;
        return std::nullopt;
      }
      if (ready == 0) {
        if (timed_out) *timed_out = true;
        return 0;
      }
      // A datagram that fails its checksum is dropped after poll said readable: do not block.
      flags = MSG_DONTWAIT;
    }

    sockaddr_in address{};
    socklen_t length = sizeof(address);
    const ssize_t received = ::recvfrom(fd, buffer.data(), buffer.size(), flags,
                                        reinterpret_cast<sockaddr*>(&address), &length);
    // After shutdown the receive returns 0 as if an empty datagram had come: the flag tells.
    if (shut_down_) return std::nullopt;
    if (received < 0) {
      if (errno == EINTR) continue;
      if ((errno == EAGAIN || errno == EWOULDBLOCK) && flags != 0) continue;
      return std::nullopt;
    }
    if (from) {
      *from = length >= sizeof(address) ? FromSockaddr(address) : UdpEndpoint{};
    }
    return static_cast<std::size_t>(received);
  }
}

void UdpSocket::Shutdown() {
  const int fd = fd_;
  if (fd < 0) return;
  shut_down_ = true;
  // On an unconnected UDP socket this fails with ENOTCONN, but still wakes the receivers.
  ::shutdown(fd, SHUT_RDWR);
}

void UdpSocket::Close() {
  Shutdown();
  const int fd = fd_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

void FormatIpv4(std::uint32_t ip, char (&out)[16]) {
  std::snprintf(out, sizeof(out), "%u.%u.%u.%u", (ip >> 24) & 0xffu, (ip >> 16) & 0xffu,
                (ip >> 8) & 0xffu, ip & 0xffu);
}

std::optional<std::uint32_t> ParseIpv4(const char* text, std::size_t length) {
  if (!text) return std::nullopt;
  std::uint32_t result = 0;
  std::size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= length || text[pos] != '.') return std::nullopt;
      ++pos;
    }
    const std::size_t first = pos;
    unsigned value = 0;
    while (pos < length && text[pos] >= '0' && text[pos] <= '9') {
      value = value * 10 + static_cast<unsigned>(text[pos] - '0');
      if (value > 255) return std::nullopt;
      ++pos;
    }
    const std::size_t digits = pos - first;
    if (digits == 0 || (digits > 1 && text[first] == '0')) return std::nullopt;
    result = (result << 8) | value;
  }
  // Anything after the fourth part but a terminator makes it something else.
  if (pos < length && text[pos] != '\0') return std::nullopt;
  return result;
}

}  // namespace deskline::platform
