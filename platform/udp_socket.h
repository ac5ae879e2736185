// IPv4 UDP sockets. A thread blocked in Receive is released by Shutdown (the socket is shut
// down, which wakes the receiver), and the socket is closed only after that thread has been
// joined, so that the descriptor is never reused under a running receive.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace deskline::platform {

struct UdpEndpoint {
  std::uint32_t ip = 0;    // host order
  std::uint16_t port = 0;  // host order
  friend bool operator==(const UdpEndpoint&, const UdpEndpoint&) = default;
};

class UdpSocket {
 public:
  UdpSocket() = default;
  ~UdpSocket() { Close(); }
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  UdpSocket(UdpSocket&& other) noexcept;
  UdpSocket& operator=(UdpSocket&& other) noexcept;

  // Opens a socket bound to `local` (ip 0 = any address, port 0 = any port). False on
  // failure, with the socket left closed. Address reuse is off: a taken port fails. False
  // also when this object is already open (close it first; it is left as it was).
  bool Open(UdpEndpoint local);
  bool is_open() const { return fd_ >= 0; }
  // The bound address (port filled in when 0 was asked for).
  std::optional<UdpEndpoint> LocalEndpoint() const;

  // Sends one datagram (may be empty). True if the system accepted all of it.
  bool SendTo(std::span<const std::byte> payload, UdpEndpoint to) const;

  // Blocks for one datagram. Returns its length (a datagram longer than `buffer` is cut to
  // it), or nullopt once the socket is shut down or closed, or on an error other than an
  // interrupted call. `from` may be null.
  std::optional<std::size_t> Receive(std::span<std::byte> buffer, UdpEndpoint* from) const;
  // As Receive, but gives up after `timeout_ms` with 0 bytes and `timed_out` set (a negative
  // timeout waits without limit). `timed_out` may be null.
  std::optional<std::size_t> ReceiveFor(std::span<std::byte> buffer, UdpEndpoint* from,
                                        int timeout_ms, bool* timed_out) const;

  // Releases every thread blocked in Receive; later receives return nullopt at once.
  void Shutdown();
  // Shutdown, then close the descriptor. Join receiving threads in between.
  void Close();

 private:
  // Atomic because Shutdown (and is_open) run on another thread than the blocked receiver.
  std::atomic<int> fd_{-1};
  std::atomic<bool> shut_down_{false};
};

// "a.b.c.d" of a host-order address, and back (nullopt for anything that is not four dotted
// decimal numbers of 0 to 255). ParseIpv4 reads at most `length` bytes and stops early at a
// NUL; a part with a leading zero ("010") is refused, since some parsers read it as octal.
void FormatIpv4(std::uint32_t ip, char (&out)[16]);
std::optional<std::uint32_t> ParseIpv4(const char* text, std::size_t length);

}  // namespace deskline::platform
