#include "tools/pbxsim/record.h"

#include <cstdio>

namespace deskline::sim {
namespace {

// Values up to this many bytes are printed whole; longer ones show their length and a head.
constexpr std::size_t kShownBytes = 8;

void AppendHex(std::string& out, std::span<const std::byte> bytes, std::size_t limit) {
  char hex[4];
  const std::size_t shown = bytes.size() < limit ? bytes.size() : limit;
  for (std::size_t i = 0; i < shown; ++i) {
    std::snprintf(hex, sizeof(hex), i == 0 ? "%02X" : " %02X", static_cast<unsigned>(bytes[i]));
    out += hex;
  }
  if (shown < bytes.size()) out += " ..";
}

// Printable ASCII as it is, line ends as \r and \n, anything else as \xNN; at most `limit`
// bytes of the input, " .." when cut.
void AppendEscaped(std::string& out, std::span<const std::byte> bytes, std::size_t limit) {
  char hex[8];
  const std::size_t shown = bytes.size() < limit ? bytes.size() : limit;
  for (std::size_t i = 0; i < shown; ++i) {
    const auto c = static_cast<unsigned char>(bytes[i]);
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      std::snprintf(hex, sizeof(hex), "\\x%02X", static_cast<unsigned>(c));
      out += hex;
    }
  }
  if (shown < bytes.size()) out += " ..";
}

void AppendPeer(std::string& line, const platform::UdpEndpoint& peer) {
  char address[16];
  char text[32];
  platform::FormatIpv4(peer.ip, address);
  std::snprintf(text, sizeof(text), " %s:%u", address, static_cast<unsigned>(peer.port));
  line += text;
}

void AppendMgcp(std::string& line, const Record& record) {
  const MgcpMessage& m = record.mgcp;
  line += "MGCP ";
  if (m.status == MgcpStatus::kEmpty) {
    line += "(empty datagram)";
    AppendPeer(line, record.peer);
    return;
  }
  if (!m.ok()) {
    line += "?";
    AppendPeer(line, record.peer);
    char text[64];
    std::snprintf(text, sizeof(text), " MALFORMED (%s, %zu bytes): ", MgcpStatusName(m.status),
                  record.raw.size());
    line += text;
    AppendEscaped(line, record.raw, 64);
    return;
  }
  const std::string_view raw = AsText(record.raw);
  std::string_view first = raw.substr(0, raw.find_first_of("\r\n"));
  line += first;
  AppendPeer(line, record.peer);
  for (const MgcpHeader& header : m.headers) {
    line += " | ";
    line += header.name;
    line += ": ";
    line += header.value;
  }
  if (m.sdp) {
    line += " | sdp";
    for (const std::string& sdp_line : m.sdp->lines) {
      if (sdp_line.empty() || (sdp_line[0] != 'c' && sdp_line[0] != 'm' && sdp_line[0] != 'a')) {
        continue;
      }
      line += ' ';
      line += sdp_line;
    }
  }
}

void AppendPtap(std::string& line, const Record& record) {
  char text[96];
  const PtapDatagram& d = record.decoded;
  if (d.has_header) {
    std::snprintf(text, sizeof(text), "%s tid=%u", TypeName(d.type).c_str(),
                  static_cast<unsigned>(d.tid));
    line += text;
  } else {
    line += "?";
  }
  char address[16];
  platform::FormatIpv4(record.peer.ip, address);
  std::snprintf(text, sizeof(text), " %s:%u", address, static_cast<unsigned>(record.peer.port));
  line += text;

  for (const WireElement& element : d.elements) {
    std::snprintf(text, sizeof(text), " [%02X]=", static_cast<unsigned>(element.tag));
    line += text;
    if (element.value.size() > kShownBytes) {
      std::snprintf(text, sizeof(text), "(%zu bytes) ", element.value.size());
      line += text;
    }
    AppendHex(line, element.value, kShownBytes);
  }
  if (d.ok()) {
    line += " END";
  } else {
    std::snprintf(text, sizeof(text), " MALFORMED (%s, %zu bytes): ", DecodeStatusName(d.status),
                  record.raw.size());
    line += text;
    AppendHex(line, record.raw, 16);
  }
}

}  // namespace

const char* FateName(Fate fate) {
  switch (fate) {
    case Fate::kPassed:
      return "passed";
    case Fate::kDropped:
      return "dropped";
    case Fate::kDelayed:
      return "delayed";
    case Fate::kDuplicate:
      return "duplicate";
    case Fate::kSendFailed:
      return "send failed";
  }
  return "unknown";
}

std::string FormatRecord(const Record& record, std::int64_t origin_ns) {
  std::string line;
  char text[96];
  const std::int64_t since_ms =
      record.steady_ns > origin_ns ? (record.steady_ns - origin_ns) / 1'000'000 : 0;
  std::snprintf(text, sizeof(text), "%4lld.%03lld %s ", static_cast<long long>(since_ms / 1000),
                static_cast<long long>(since_ms % 1000),
                record.direction == Direction::kIn ? "TRM->PBX" : "PBX->TRM");
  line += text;

  if (record.channel == Channel::kMgcp) {
    AppendMgcp(line, record);
  } else {
    AppendPtap(line, record);
  }
  if (record.fate != Fate::kPassed) {
    line += " {";
    line += FateName(record.fate);
    if (record.fate == Fate::kDelayed) {
      std::snprintf(text, sizeof(text), " %d ms", record.delay_ms);
      line += text;
    }
    line += "}";
  }
  return line;
}

}  // namespace deskline::sim
