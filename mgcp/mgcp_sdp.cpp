#include "mgcp/mgcp_sdp.h"

#include <cstdio>

#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_text.h"
#include "support/tracer.h"

namespace deskline {

using mgcp_text::ReadDecimal;
using mgcp_text::TextWriter;

namespace {

// Behind every "a=": the codec is taken from the attribute if it is an rtpmap.
void ChooseCodec(MgcpRemoteSdp& sdp, std::size_t value_length, bool& known_codec_seen) {
  static constexpr std::string_view kRtpmap = "rtpmap:";
  if (value_length <= kRtpmap.size()) return;
  // The stored attribute is what counts: an a= line too long to store leaves the earlier one.
  const std::string_view attribute = FieldText(sdp.remoteAttribute);
  const std::size_t at = attribute.find(kRtpmap);
  if (at == std::string_view::npos) return;
  const std::uint32_t payload_type = ReadDecimal(attribute, at + kRtpmap.size());
  if (IsKnownCodec(payload_type)) {
    sdp.codec = payload_type;
    known_codec_seen = true;
  } else if (!known_codec_seen) {
    sdp.codec = 0;
  }
  DL_TRACE(TRACE_DETAIL, "MGCP - Codec type: [%d]", static_cast<int>(sdp.codec));
}

void AppendLine(TextWriter& writer, std::string_view prefix, std::string_view value) {
  writer.Append(prefix);
  writer.Append(value);
  writer.Append("\r\n");
}

}  // namespace

std::string_view CodecName(std::uint32_t payload_type) {
  switch (payload_type) {
    case 8:
      return "PCMA";
    case 9:
      return "G722";
    case 18:
      return "G729";
    default:
      return "PCMU";
  }
}

bool IsKnownCodec(std::uint32_t payload_type) {
  return payload_type == 0 || payload_type == 8 || payload_type == 9 || payload_type == 18;
}

int ReadSdp(MgcpControlBlock& block, std::string_view text, std::size_t offset) {
  MgcpRemoteSdp& sdp = block.remoteSdp;
  sdp = MgcpRemoteSdp{};
  bool known_codec_seen = false;
  // A line without CR LF is read with the length of the line before it (0 for the first),
  // cut to the bytes that are really there.
  std::size_t line_length = 0;
  for (std::size_t pos = offset; pos + 1 < text.size(); ++pos) {
    if (text[pos + 1] != '=') continue;
    const char kind = text[pos];
    if (kind != 'v' && kind != 'o' && kind != 's' && kind != 'a' && kind != 'm' && kind != 'c') {
      continue;  // "t=" and anything else: nothing depends on them
    }
    const std::size_t value_pos = pos + 2;
    const std::size_t left = text.size() - value_pos;
    std::size_t found = 0;
    if (FindLineEnd(text.data() + value_pos, left, &found) == 0) line_length = found;
    const std::string_view value =
        text.substr(value_pos, line_length < left ? line_length : left);
    if (value.size() <= kMgcpSdpFieldSize) {
      switch (kind) {
        case 'v':
          sdp.remoteSdpVersion = static_cast<std::int32_t>(ReadDecimal(value, 0));
          break;
        case 'o':
          StoreField(sdp.remoteOrigin, value);
          break;
        case 's':
          StoreField(sdp.remoteSessionName, value);
          break;
        case 'c':
          StoreField(sdp.remoteConnection, value);
          break;
        case 'm':
          // The port stands behind "audio "; neither that word nor the transport is tested.
          StoreField(sdp.remoteMedia, value);
          sdp.remoteRtpPort = ReadDecimal(value, 6);
          break;
        case 'a':
          StoreField(sdp.remoteAttribute, value);
          break;
        default:
          break;
      }
    }
    if (kind == 'a') ChooseCodec(sdp, value.size(), known_codec_seen);
  }
  return 0;
}

int WriteSdp(const MgcpControlBlock& block, MgcpPacket& packet, std::size_t offset) {
  const MgcpLocalSdp& sdp = block.localSdp;
  TextWriter writer(packet.data.data(), kMgcpPacketSize, offset);
  writer.Format("I: %u\r\n", block.connectionId);
  writer.Append("\r\n");
  writer.Format("v=%d\r\n", sdp.localSdpVersion);
  AppendLine(writer, "o=", FieldText(sdp.localOrigin));
  AppendLine(writer, "s=", FieldText(sdp.localSessionName));
  AppendLine(writer, "c=", FieldText(sdp.localConnection));
  writer.Format("t=%d %d\r\n", sdp.localTimeStart, sdp.localTimeStop);
  AppendLine(writer, "m=", FieldText(sdp.localMedia));
  AppendLine(writer, "a=", FieldText(sdp.localAttribute));
  if (!writer.ok()) {
    packet.length = static_cast<std::uint32_t>(offset <= kMgcpPacketSize ? offset : 0);
    return 1;
  }
  packet.length = static_cast<std::uint32_t>(writer.size());
  return 0;
}

int HandleSdp(MgcpControlBlock& block, MgcpPacket& packet, std::size_t offset, int read) {
  if (read == 1) return ReadSdp(block, packet.Text(), offset);
  return WriteSdp(block, packet, offset);
}

int SetLocalMedia(MgcpControlBlock& block, std::int64_t port) {
  if (port < 0 || port > 65535) return 1;
  block.localRtpPort = static_cast<std::uint32_t>(port);
  const std::uint32_t codec = block.remoteSdp.codec;
  char text[kMgcpSdpFieldSize + 1];
  int n = std::snprintf(text, sizeof(text), "audio %d RTP/AVP %u", static_cast<int>(port), codec);
  if (n > 0 && static_cast<std::size_t>(n) < kMgcpSdpFieldSize) {
    StoreField(block.localSdp.localMedia, std::string_view(text, static_cast<std::size_t>(n)));
  }
  const std::string_view name = CodecName(codec);
  n = std::snprintf(text, sizeof(text), "rtpmap:%u %.*s/%u", codec, static_cast<int>(name.size()),
                    name.data(), kSdpClockRate);
  if (n > 0 && static_cast<std::size_t>(n) < kMgcpSdpFieldSize) {
    StoreField(block.localSdp.localAttribute, std::string_view(text, static_cast<std::size_t>(n)));
  }
  return 0;
}

void SetLocalIdentity(MgcpControlBlock& block, std::uint32_t local_ip) {
  char dotted[16];
  std::snprintf(dotted, sizeof(dotted), "%u.%u.%u.%u", (local_ip >> 24) & 0xFFu,
                (local_ip >> 16) & 0xFFu, (local_ip >> 8) & 0xFFu, local_ip & 0xFFu);
  char text[64];
  MgcpLocalSdp& sdp = block.localSdp;
  int n = std::snprintf(text, sizeof(text), "- 0 0 IN IP4 %s", dotted);
  StoreField(sdp.localOrigin, std::string_view(text, static_cast<std::size_t>(n)));
  n = std::snprintf(text, sizeof(text), "IN IP4 %s", dotted);
  StoreField(sdp.localConnection, std::string_view(text, static_cast<std::size_t>(n)));
  StoreField(sdp.localSessionName, "-");
  sdp.localSdpVersion = 0;
  sdp.localTimeStart = 0;
  sdp.localTimeStop = 0;
}

void SetEndpointName(MgcpControlBlock& block, const std::uint8_t (&mac)[6]) {
  char name[kMgcpEndpointNameSize];
  const int n = std::snprintf(name, sizeof(name), "d1@%02x%02x%02x%02x%02x%02x", mac[0], mac[1],
                              mac[2], mac[3], mac[4], mac[5]);
  StoreField(block.endpointName, std::string_view(name, static_cast<std::size_t>(n)));
}

}  // namespace deskline
