// The call agent's own reading and writing of MGCP text. Like the PTAP side it shares nothing
// with the terminal's code, so that a fault in the terminal's texts shows up here instead of
// being mirrored by the same parser on both ends.
//
// A message is a first line, header lines "Name: value", and optionally an empty line and an
// SDP body. Lines end in CR LF; a bare LF is accepted as well, as the protocol allows.
//
// Thread rules: plain functions over caller-owned text; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace deskline::sim {

// What a network rule on the MGCP channel matches, in place of the PTAP packet type.
enum class MgcpKind : std::uint8_t {
  kResponse = 0,
  kRsip,
  kNtfy,
  kDlcx,
  kCrcx,
  kMdcx,
  kRqnt,
  kAuep,
  kOther,  // any other verb
};

// The rule type of a datagram: nullopt for one that is no well-formed MGCP message (empty
// datagrams included).
std::optional<std::uint8_t> MgcpRuleType(std::span<const std::byte> datagram);

enum class MgcpStatus {
  kOk,
  kEmpty,          // no bytes at all (the terminal's port punching)
  kNotText,        // a NUL or another control byte besides CR, LF and TAB
  kBadFirstLine,   // neither "VERB tid endpoint MGCP version" nor "code tid [commentary]"
  kBadTid,         // transaction id missing, not decimal, or outside 1..999999999
  kBadHeader,      // a header line without "Name:"
};

// A short name for traces and test messages, such as "bad first line".
const char* MgcpStatusName(MgcpStatus status);

struct RtpMap {
  int payload_type = 0;
  std::string encoding;  // "PCMU/8000"
  friend bool operator==(const RtpMap&, const RtpMap&) = default;
};

// What an SDP body says, as far as a telephone call needs it. The lines are kept as they came.
struct SdpInfo {
  std::vector<std::string> lines;  // "v=0", "o=...", in order, line ends removed
  std::optional<int> version;
  std::string origin;      // value of o=
  std::string session;     // value of s=
  std::string connection;  // value of c=, such as "IN IP4 127.0.0.1"
  std::string media;       // value of the first m=
  std::optional<std::uint32_t> ip;    // from c=IN IP4, host order
  std::optional<std::uint16_t> port;  // from m=audio <port>
  std::vector<int> payload_types;     // the m= line's format list
  std::vector<RtpMap> rtpmaps;        // a=rtpmap lines, in order
  std::vector<std::string> attributes;  // every a= value, in order
  // Empty when every line had the form "x=value"; else what was wrong first.
  std::string fault;
};

SdpInfo ParseSdp(std::string_view body);

struct MgcpHeader {
  std::string name;   // as written, such as "O"
  std::string value;  // leading blanks removed
  friend bool operator==(const MgcpHeader&, const MgcpHeader&) = default;
};

struct MgcpMessage {
  MgcpStatus status = MgcpStatus::kEmpty;
  bool is_response = false;
  // Commands.
  std::string verb;      // upper case, as the terminal writes it
  std::string endpoint;  // such as "d1@0200aabbccdd"
  std::string version;   // the rest of the first line behind the endpoint: "MGCP 1.0"
  // Responses.
  int code = 0;
  std::string commentary;  // the text behind the tid, if any
  // Both.
  std::uint32_t tid = 0;
  std::vector<MgcpHeader> headers;
  std::vector<std::string> observed_events;  // every O: line, split at commas, trimmed
  std::optional<SdpInfo> sdp;                // present when an empty line is followed by text

  bool ok() const { return status == MgcpStatus::kOk; }
  // The value of the first header `name` (compared without regard to case), or null.
  const std::string* Header(std::string_view name) const;
  MgcpKind kind() const;
};

// Reads one datagram. Never reads past `datagram`; every fault is a status, not a crash.
MgcpMessage DecodeMgcp(std::span<const std::byte> datagram);

std::vector<std::byte> ToBytes(std::string_view text);
std::string_view AsText(std::span<const std::byte> bytes);

// --- texts the call agent sends ---

// Connection modes as the M: line names them.
enum class ConnectionMode { kSendRecv, kSendOnly, kRecvOnly, kInactive };
const char* ConnectionModeName(ConnectionMode mode);

// The far end that a CRCX or MDCX offers the terminal.
struct MediaOffer {
  std::uint32_t ip = 0x7F000001;  // host order, for c=
  std::uint16_t port = 40000;     // for m=
  // The m= format list in this order; each known type (0, 8, 9, 18) also gets an rtpmap
  // line, in the same order, so a test controls which one the terminal reads last.
  std::vector<int> payload_types = {0};
  std::uint32_t session_id = 1;  // o= session id and version
};

// "PCMU", "PCMA", "G722", "G729", or empty for a type without a static name here.
const char* PayloadTypeName(int payload_type);

// v=0, o=- id id IN IP4 ip, s=-, c=IN IP4 ip, t=0 0, m=audio port RTP/AVP types, rtpmaps.
std::string BuildSdp(const MediaOffer& offer);

struct RqntText {
  std::uint32_t tid = 0;
  std::string endpoint;
  std::uint32_t request_id = 1;  // X:, written in hexadecimal
  std::string requested_events;  // R:, left out when empty
  // One S: line per entry; the signals of an entry are joined by commas.
  std::vector<std::vector<std::string>> signal_lines;
};
std::string BuildRqnt(const RqntText& rqnt);

struct ConnectionText {
  std::uint32_t tid = 0;
  std::string endpoint;
  std::string call_id;
  std::string connection_id;  // I:, MDCX only, left out when empty
  ConnectionMode mode = ConnectionMode::kSendRecv;
  int packetization_ms = 20;  // L: p:, left out when 0 (CRCX only)
  std::optional<MediaOffer> sdp;
};
// CRCX: first line, C:, L: (with the first offered codec's name), M:, then the SDP.
std::string BuildCrcx(const ConnectionText& crcx);
// MDCX: first line, C:, I:, M:, then the SDP if any.
std::string BuildMdcx(const ConnectionText& mdcx);
// DLCX: first line, then C: and I: when given (an endpoint-wide delete without them).
std::string BuildDlcx(std::uint32_t tid, std::string_view endpoint, std::string_view call_id,
                      std::string_view connection_id);
// AUEP: first line, then "F: <info>" when `requested_info` is not empty.
std::string BuildAuep(std::uint32_t tid, std::string_view endpoint,
                      std::string_view requested_info);
// "code tid commentary" or, with no commentary, "code tid"; the code in three digits.
std::string BuildResponse(int code, std::uint32_t tid, std::string_view commentary);

// --- X-P signals, one each, for the S: line ---
namespace xp {

// ring(class, pattern, melody); all zero stops the ringer.
std::string Ring(std::uint8_t ring_class, std::uint8_t pattern, std::uint8_t melody);
std::string RingOff();
// ks(KKKK,state): a key lamp; state is a name such as "off", "gon", "r3i".
std::string Lamp(std::uint16_t key, std::string_view state);
// lcdp display write: kind (0x21, or 0x22 for blank runs), row and column (the terminal adds
// one to each), then the text as counted hexadecimal bytes; texts beyond 255 bytes are cut.
std::string Display(std::uint8_t row, std::uint8_t column, std::string_view text,
                    std::uint8_t kind = 0x21);
std::string DisplayClear();
// tone: two values and three flags at their fixed places.
std::string Tone(std::uint8_t value1, bool flag1, bool flag2, bool flag3, std::uint8_t value2);
// vctl(slot, value): slot 3 is the ringer.
std::string Volume(std::uint8_t slot, std::uint8_t value);
// Any signal: "X-P/name(argument)", or "X-P/name" for an empty argument.
std::string Signal(std::string_view name, std::string_view argument);

}  // namespace xp

}  // namespace deskline::sim
