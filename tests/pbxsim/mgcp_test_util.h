// A raw MGCP terminal on loopback: texts written out in the test, sent and received as they
// stand, independent of both the call agent's code and the terminal's.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "pbxsim_test_util.h"

namespace deskline::sim::testing {

inline constexpr const char* kEndpoint = "d1@0200aabbccdd";

inline Bytes Text(std::string_view text) {
  Bytes out(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) out[i] = static_cast<std::byte>(text[i]);
  return out;
}

class MgcpTerminal {
 public:
  platform::UdpEndpoint endpoint() const { return raw_.endpoint(); }
  void Send(std::string_view text, platform::UdpEndpoint to) { raw_.Send(Text(text), to); }
  void SendBytes(const Bytes& bytes, platform::UdpEndpoint to) { raw_.Send(bytes, to); }
  // The next datagram as text, or "(nothing)" after `timeout_ms` of real time.
  std::string Receive(int timeout_ms = 5000) {
    const std::optional<Bytes> bytes = raw_.Receive(timeout_ms);
    if (!bytes) return "(nothing)";
    return std::string(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  }

 private:
  RawTerminal raw_;
};

}  // namespace deskline::sim::testing
