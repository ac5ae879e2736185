// A raw terminal on loopback, and datagrams written out from the protocols' byte figures,
// independent of both the simulator's encoder and the terminal's.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "testing/eventually.h"
#include "platform/udp_socket.h"

namespace deskline::sim::testing {

using deskline::testing::Eventually;

using Bytes = std::vector<std::byte>;

// "50 54 41 50" -> bytes: pairs of hex digits, blanks ignored.
inline Bytes Hex(std::string_view text) {
  Bytes out;
  std::istringstream in{std::string(text)};
  for (std::string two; in >> std::setw(2) >> two;) {
    out.push_back(static_cast<std::byte>(std::stoi(two, nullptr, 16)));
  }
  return out;
}

inline Bytes Text(std::string_view text) {
  return Bytes(reinterpret_cast<const std::byte*>(text.data()),
               reinterpret_cast<const std::byte*>(text.data() + text.size()));
}

// A PTAP datagram: magic, the tid, the type and the elements in hex.
inline Bytes Ptap(std::string_view tid, std::string_view type_and_elements) {
  return Hex("50 54 41 50 " + std::string(tid) + " " + std::string(type_and_elements));
}

// A START as the terminal sends it, with the capability descriptor the protocol fixes for each
// mode: start code 05, identity "TERMINAL0001", MAC 02 00 00 AA BB CC, IP 127.0.0.1.
inline Bytes StartDatagram(bool extended, std::string_view tid = "00 00 00 01") {
  const char* basic =
      "01 00 31 01 04 00 06 18 00 02 02 18 04 03 FE DF E0 02 04 04 01 21 01 22 01 23 02 24 04 02"
      " 25 04 02 26 0C 02 27 05 01 28 01 29 04 30 C8 00 00 04 86 40 00 00  02 00 02 01 01";
  const char* ext =
      "01 00 53 03 04 00 06 18 00 02 02 0C 04 03 FE DF E2 02 04 04 04 05 0C 0C 00 03 07 30 04 04"
      " 08 CF 00 00 01 21 01 23 02 24 04 02 25 04 02 26 0C 02 27 05 01 28 01 29 04 30 C8 00 00 02"
      " 31 04 04 42 00 00 00 02 50 01 04 81 01 00 00 01 82 01 83 01 84 04 86 40 00 00"
      "  02 00 02 03 12";
  return Ptap(tid, "04 20 00 01 05 " + std::string(extended ? ext : basic) +
                       " 05 00 0C 54 45 52 4D 49 4E 41 4C 30 30 30 31"
                       " 07 00 06 02 00 00 AA BB CC 06 00 04 7F 00 00 01 FF");
}

// The terminal's ACK (result 0, its MAC); an Error report with code 7, a plain packet that any
// PBX must acknowledge; an OP_BEGIN.
inline Bytes TerminalAck(std::string_view tid) {
  return Ptap(tid, "00 20 00 01 00 07 00 06 02 00 00 AA BB CC FF");
}
inline Bytes ErrorReport(std::string_view tid) {
  return Ptap(tid, "14 20 00 01 07 07 00 06 02 00 00 AA BB CC FF");
}
inline Bytes OpBegin(std::string_view tid) { return Ptap(tid, "0F 07 00 06 02 00 00 AA BB CC FF"); }

// The terminal's MGCP commands.
inline const std::string kRsip = "RSIP 1 d1@0200aabbccdd MGCP 1.0\r\nRM: restart\r\n";
inline std::string Ntfy(int tid, std::string_view event) {
  return "NTFY " + std::to_string(tid) + " d1@0200aabbccdd MGCP 1.0\r\nX: 1\r\nO: " +
         std::string(event) + "\r\n";
}

class RawTerminal {
 public:
  RawTerminal() {
    EXPECT_TRUE(socket_.Open({0x7F000001, 0}));
    endpoint_ = socket_.LocalEndpoint().value_or(platform::UdpEndpoint{});
  }
  platform::UdpEndpoint endpoint() const { return endpoint_; }
  void Send(const Bytes& datagram, platform::UdpEndpoint to) {
    EXPECT_TRUE(socket_.SendTo(datagram, to));
  }
  void Send(std::string_view text, platform::UdpEndpoint to) { Send(Text(text), to); }
  // The next datagram, or nullopt after `timeout_ms` of real time.
  std::optional<Bytes> Receive(int timeout_ms = 5000) {
    Bytes buffer(65536);
    bool timed_out = false;
    const auto length = socket_.ReceiveFor(buffer, nullptr, timeout_ms, &timed_out);
    if (!length || timed_out) return std::nullopt;
    buffer.resize(*length);
    return buffer;
  }
  // The next datagram as text, or "(nothing)".
  std::string ReceiveText(int timeout_ms = 5000) {
    const std::optional<Bytes> b = Receive(timeout_ms);
    return b ? std::string(reinterpret_cast<const char*>(b->data()), b->size()) : "(nothing)";
  }

 private:
  platform::UdpSocket socket_;
  platform::UdpEndpoint endpoint_;
};

}  // namespace deskline::sim::testing
