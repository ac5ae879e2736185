#include "tools/pbxsim/mgcp_wire.h"

#include <charconv>
#include <cstdio>

#include "platform/udp_socket.h"

namespace deskline::sim {
namespace {

constexpr std::uint32_t kMaxTid = 999'999'999;
constexpr std::size_t kMaxDisplayText = 255;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlnum(char c) {
  return IsDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
char Upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool EqualNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (Upper(a[i]) != Upper(b[i])) return false;
  }
  return true;
}

std::string_view TrimLeft(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  return text;
}
std::string_view Trim(std::string_view text) {
  text = TrimLeft(text);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

// Splits at LF and drops one CR before it; a last line without an end counts as a line.
std::vector<std::string_view> SplitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

// Words separated by runs of blanks.
std::vector<std::string_view> Words(std::string_view text) {
  std::vector<std::string_view> words;
  for (;;) {
    text = TrimLeft(text);
    if (text.empty()) return words;
    std::size_t end = 0;
    while (end < text.size() && !IsBlank(text[end])) ++end;
    words.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

// A whole decimal number of at most `max_digits` digits, or nullopt.
std::optional<std::uint32_t> Decimal(std::string_view text, std::size_t max_digits) {
  if (text.empty() || text.size() > max_digits) return std::nullopt;
  for (char c : text) {
    if (!IsDigit(c)) return std::nullopt;
  }
  std::uint32_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec != std::errc{}) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> Tid(std::string_view word) {
  const std::optional<std::uint32_t> tid = Decimal(word, 9);
  if (!tid || *tid == 0 || *tid > kMaxTid) return std::nullopt;
  return tid;
}

// The rest of `line` from the start of `word`, which must lie inside it.
std::string_view RestFrom(std::string_view line, std::string_view word) {
  return line.substr(static_cast<std::size_t>(word.data() - line.data()));
}

MgcpStatus ReadFirstLine(std::string_view line, MgcpMessage& message) {
  const std::vector<std::string_view> words = Words(line);
  if (words.empty()) return MgcpStatus::kBadFirstLine;
  const std::string_view first = words[0];
  const bool all_digits = first.size() == 3 && IsDigit(first[0]) && IsDigit(first[1]) &&
                          IsDigit(first[2]);
  if (all_digits) {
    message.is_response = true;
    message.code = (first[0] - '0') * 100 + (first[1] - '0') * 10 + (first[2] - '0');
    if (words.size() < 2) return MgcpStatus::kBadTid;
    const std::optional<std::uint32_t> tid = Tid(words[1]);
    if (!tid) return MgcpStatus::kBadTid;
    message.tid = *tid;
    if (words.size() > 2) message.commentary = std::string(Trim(RestFrom(line, words[2])));
    return MgcpStatus::kOk;
  }
  if (first.size() != 4) return MgcpStatus::kBadFirstLine;
  for (char c : first) {
    if (!IsAlnum(c)) return MgcpStatus::kBadFirstLine;
  }
  for (char c : first) message.verb += Upper(c);
  if (words.size() < 2) return MgcpStatus::kBadTid;
  const std::optional<std::uint32_t> tid = Tid(words[1]);
  if (!tid) return MgcpStatus::kBadTid;
  message.tid = *tid;
  if (words.size() < 5 || !EqualNoCase(words[3], "MGCP")) return MgcpStatus::kBadFirstLine;
  message.endpoint = std::string(words[2]);
  message.version = std::string(Trim(RestFrom(line, words[3])));
  return MgcpStatus::kOk;
}

void ReadObservedEvents(std::string_view value, std::vector<std::string>& events) {
  for (;;) {
    const std::size_t comma = value.find(',');
    const std::string_view event = Trim(value.substr(0, comma));
    if (!event.empty()) events.emplace_back(event);
    if (comma == std::string_view::npos) return;
    value.remove_prefix(comma + 1);
  }
}

std::string Hex2(unsigned value) {
  char text[3];
  std::snprintf(text, sizeof(text), "%02X", value & 0xFFu);
  return text;
}

std::string FirstLine(std::string_view verb, std::uint32_t tid, std::string_view endpoint) {
  std::string line(verb);
  line += ' ';
  line += std::to_string(tid);
  line += ' ';
  line += endpoint;
  line += " MGCP 1.0\r\n";
  return line;
}

void AddLine(std::string& text, std::string_view name, std::string_view value) {
  text += name;
  text += ": ";
  text += value;
  text += "\r\n";
}

std::string Dotted(std::uint32_t ip) {
  char address[16];
  platform::FormatIpv4(ip, address);
  return address;
}

}  // namespace

const char* MgcpStatusName(MgcpStatus status) {
  switch (status) {
    case MgcpStatus::kOk:
      return "ok";
    case MgcpStatus::kEmpty:
      return "empty";
    case MgcpStatus::kNotText:
      return "not text";
    case MgcpStatus::kBadFirstLine:
      return "bad first line";
    case MgcpStatus::kBadTid:
      return "bad transaction id";
    case MgcpStatus::kBadHeader:
      return "bad header line";
  }
  return "unknown";
}

const std::string* MgcpMessage::Header(std::string_view name) const {
  for (const MgcpHeader& header : headers) {
    if (EqualNoCase(header.name, name)) return &header.value;
  }
  return nullptr;
}

MgcpKind MgcpMessage::kind() const {
  if (is_response) return MgcpKind::kResponse;
  static constexpr std::pair<std::string_view, MgcpKind> kVerbs[] = {
      {"RSIP", MgcpKind::kRsip}, {"NTFY", MgcpKind::kNtfy}, {"DLCX", MgcpKind::kDlcx},
      {"CRCX", MgcpKind::kCrcx}, {"MDCX", MgcpKind::kMdcx}, {"RQNT", MgcpKind::kRqnt},
      {"AUEP", MgcpKind::kAuep}};
  for (const auto& [name, kind] : kVerbs) {
    if (verb == name) return kind;
  }
  return MgcpKind::kOther;
}

std::optional<std::uint8_t> MgcpRuleType(std::span<const std::byte> datagram) {
  const MgcpMessage message = DecodeMgcp(datagram);
  if (!message.ok()) return std::nullopt;
  return static_cast<std::uint8_t>(message.kind());
}

SdpInfo ParseSdp(std::string_view body) {
  SdpInfo sdp;
  bool media_seen = false;
  for (const std::string_view line : SplitLines(body)) {
    if (line.empty()) continue;
    sdp.lines.emplace_back(line);
    if (line.size() < 2 || line[1] != '=' || line[0] < 'a' || line[0] > 'z') {
      if (sdp.fault.empty()) sdp.fault = "not a line of the form x=value: " + std::string(line);
      continue;
    }
    const std::string_view value = line.substr(2);
    switch (line[0]) {
      case 'v':
        if (const auto version = Decimal(value, 9)) sdp.version = static_cast<int>(*version);
        break;
      case 'o':
        sdp.origin = std::string(value);
        break;
      case 's':
        sdp.session = std::string(value);
        break;
      case 'c': {
        sdp.connection = std::string(value);
        const std::vector<std::string_view> words = Words(value);
        if (words.size() == 3 && words[0] == "IN" && words[1] == "IP4") {
          sdp.ip = platform::ParseIpv4(words[2].data(), words[2].size());
        }
        break;
      }
      case 'm': {
        if (media_seen) break;
        media_seen = true;
        sdp.media = std::string(value);
        const std::vector<std::string_view> words = Words(value);
        if (words.size() >= 2) {
          if (const auto port = Decimal(words[1], 5); port && *port <= 0xFFFF) {
            sdp.port = static_cast<std::uint16_t>(*port);
          }
        }
        for (std::size_t i = 3; i < words.size(); ++i) {
          if (const auto type = Decimal(words[i], 3)) {
            sdp.payload_types.push_back(static_cast<int>(*type));
          }
        }
        break;
      }
      case 'a': {
        sdp.attributes.emplace_back(value);
        constexpr std::string_view kRtpmap = "rtpmap:";
        if (value.substr(0, kRtpmap.size()) == kRtpmap) {
          const std::vector<std::string_view> words = Words(value.substr(kRtpmap.size()));
          if (!words.empty()) {
            if (const auto type = Decimal(words[0], 3)) {
              sdp.rtpmaps.push_back(RtpMap{static_cast<int>(*type),
                                           words.size() > 1 ? std::string(words[1]) : ""});
            }
          }
        }
        break;
      }
      default:
        break;
    }
  }
  return sdp;
}

MgcpMessage DecodeMgcp(std::span<const std::byte> datagram) {
  MgcpMessage message;
  if (datagram.empty()) return message;
  for (const std::byte b : datagram) {
    const auto c = static_cast<unsigned char>(b);
    if ((c < 0x20 && c != '\r' && c != '\n' && c != '\t') || c == 0x7F) {
      message.status = MgcpStatus::kNotText;
      return message;
    }
  }
  const std::vector<std::string_view> lines = SplitLines(AsText(datagram));
  message.status = ReadFirstLine(lines.front(), message);
  if (!message.ok()) return message;

  std::size_t i = 1;
  for (; i < lines.size(); ++i) {
    const std::string_view line = lines[i];
    if (line.empty()) break;
    const std::size_t colon = line.find(':');
    const std::string_view name = colon == std::string_view::npos ? "" : line.substr(0, colon);
    bool good_name = !name.empty();
    for (char c : name) good_name = good_name && !IsBlank(c);
    if (!good_name) {
      message.status = MgcpStatus::kBadHeader;
      return message;
    }
    MgcpHeader header{std::string(name), std::string(Trim(line.substr(colon + 1)))};
    if (header.name == "O" || header.name == "o") {
      ReadObservedEvents(header.value, message.observed_events);
    }
    message.headers.push_back(std::move(header));
  }
  // Everything behind the empty line is the session description.
  if (i + 1 < lines.size()) {
    const std::string_view text = AsText(datagram);
    const std::string_view body = RestFrom(text, lines[i + 1]);
    if (!Trim(body).empty()) message.sdp = ParseSdp(body);
  }
  return message;
}

std::vector<std::byte> ToBytes(std::string_view text) {
  std::vector<std::byte> bytes(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) bytes[i] = static_cast<std::byte>(text[i]);
  return bytes;
}

std::string_view AsText(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

const char* ConnectionModeName(ConnectionMode mode) {
  switch (mode) {
    case ConnectionMode::kSendRecv:
      return "sendrecv";
    case ConnectionMode::kSendOnly:
      return "sendonly";
    case ConnectionMode::kRecvOnly:
      return "recvonly";
    case ConnectionMode::kInactive:
      return "inactive";
  }
  return "inactive";
}

const char* PayloadTypeName(int payload_type) {
  switch (payload_type) {
    case 0:
      return "PCMU";
    case 8:
      return "PCMA";
    case 9:
      return "G722";
    case 18:
      return "G729";
    default:
      return "";
  }
}

std::string BuildSdp(const MediaOffer& offer) {
  const std::string ip = Dotted(offer.ip);
  const std::string session = std::to_string(offer.session_id);
  std::string sdp = "v=0\r\n";
  sdp += "o=- " + session + " " + session + " IN IP4 " + ip + "\r\n";
  sdp += "s=-\r\n";
  sdp += "c=IN IP4 " + ip + "\r\n";
  sdp += "t=0 0\r\n";
  sdp += "m=audio " + std::to_string(offer.port) + " RTP/AVP";
  for (int type : offer.payload_types) sdp += " " + std::to_string(type);
  sdp += "\r\n";
  for (int type : offer.payload_types) {
    const std::string_view name = PayloadTypeName(type);
    if (name.empty()) continue;
    sdp += "a=rtpmap:" + std::to_string(type) + " " + std::string(name) + "/8000\r\n";
  }
  return sdp;
}

std::string BuildRqnt(const RqntText& rqnt) {
  std::string text = FirstLine("RQNT", rqnt.tid, rqnt.endpoint);
  char request_id[12];
  std::snprintf(request_id, sizeof(request_id), "%x", static_cast<unsigned>(rqnt.request_id));
  AddLine(text, "X", request_id);
  if (!rqnt.requested_events.empty()) AddLine(text, "R", rqnt.requested_events);
  for (const std::vector<std::string>& signals : rqnt.signal_lines) {
    std::string line;
    for (const std::string& signal : signals) {
      if (!line.empty()) line += ',';
      line += signal;
    }
    AddLine(text, "S", line);
  }
  return text;
}

std::string BuildCrcx(const ConnectionText& crcx) {
  std::string text = FirstLine("CRCX", crcx.tid, crcx.endpoint);
  AddLine(text, "C", crcx.call_id);
  if (crcx.packetization_ms > 0) {
    std::string options = "p:" + std::to_string(crcx.packetization_ms);
    if (crcx.sdp && !crcx.sdp->payload_types.empty()) {
      const std::string_view name = PayloadTypeName(crcx.sdp->payload_types.front());
      if (!name.empty()) options += ", a:" + std::string(name);
    }
    AddLine(text, "L", options);
  }
  AddLine(text, "M", ConnectionModeName(crcx.mode));
  if (crcx.sdp) text += "\r\n" + BuildSdp(*crcx.sdp);
  return text;
}

std::string BuildMdcx(const ConnectionText& mdcx) {
  std::string text = FirstLine("MDCX", mdcx.tid, mdcx.endpoint);
  AddLine(text, "C", mdcx.call_id);
  if (!mdcx.connection_id.empty()) AddLine(text, "I", mdcx.connection_id);
  AddLine(text, "M", ConnectionModeName(mdcx.mode));
  if (mdcx.sdp) text += "\r\n" + BuildSdp(*mdcx.sdp);
  return text;
}

std::string BuildDlcx(std::uint32_t tid, std::string_view endpoint, std::string_view call_id,
                      std::string_view connection_id) {
  std::string text = FirstLine("DLCX", tid, endpoint);
  if (!call_id.empty()) AddLine(text, "C", call_id);
  if (!connection_id.empty()) AddLine(text, "I", connection_id);
  return text;
}

std::string BuildAuep(std::uint32_t tid, std::string_view endpoint,
                      std::string_view requested_info) {
  std::string text = FirstLine("AUEP", tid, endpoint);
  if (!requested_info.empty()) AddLine(text, "F", requested_info);
  return text;
}

std::string BuildResponse(int code, std::uint32_t tid, std::string_view commentary) {
  char line[32];
  const int shown = code < 0 ? 0 : (code > 999 ? 999 : code);
  std::snprintf(line, sizeof(line), "%03d %u", shown, static_cast<unsigned>(tid));
  std::string text = line;
  if (!commentary.empty()) {
    text += ' ';
    text += commentary;
  }
  text += "\r\n";
  return text;
}

namespace xp {

std::string Ring(std::uint8_t ring_class, std::uint8_t pattern, std::uint8_t melody) {
  return "X-P/ring(" + Hex2(ring_class) + Hex2(pattern) + Hex2(melody) + ")";
}

std::string RingOff() { return Ring(0, 0, 0); }

std::string Lamp(std::uint16_t key, std::string_view state) {
  char code[5];
  std::snprintf(code, sizeof(code), "%04X", static_cast<unsigned>(key));
  return "X-P/ks(" + std::string(code) + "," + std::string(state) + ")";
}

std::string Display(std::uint8_t row, std::uint8_t column, std::string_view text,
                    std::uint8_t kind) {
  if (text.size() > kMaxDisplayText) text = text.substr(0, kMaxDisplayText);
  std::string argument = Hex2(kind) + Hex2(row) + Hex2(column) +
                         Hex2(static_cast<unsigned>(text.size()));
  for (char c : text) argument += Hex2(static_cast<unsigned char>(c));
  return Signal("lcdp", argument);
}

std::string DisplayClear() { return Signal("lcdp", "300100000000"); }

std::string Tone(std::uint8_t value1, bool flag1, bool flag2, bool flag3, std::uint8_t value2) {
  return Signal("tone", Hex2(value1) + (flag1 ? "01" : "00") + (flag2 ? "01" : "00") +
                            (flag3 ? "01" : "00") + "00" + Hex2(value2));
}

std::string Volume(std::uint8_t slot, std::uint8_t value) {
  return Signal("vctl", Hex2(slot) + Hex2(value));
}

std::string Signal(std::string_view name, std::string_view argument) {
  std::string signal = "X-P/" + std::string(name);
  if (!argument.empty()) signal += "(" + std::string(argument) + ")";
  return signal;
}

}  // namespace xp

}  // namespace deskline::sim
