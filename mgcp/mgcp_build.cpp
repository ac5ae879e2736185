#include "mgcp/mgcp_build.h"

#include <string_view>

#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_text.h"

namespace deskline {

using mgcp_text::TextWriter;

namespace {

// Key texts that are reported with "fk" in front of them, as given.
constexpr std::string_view kFunctionKeys[] = {
    "0100", "0200", "0300", "0301", "0723", "072a",                                  //
    "0730", "0731", "0732", "0733", "0734", "0735", "0736", "0737", "0738", "0739",  //
    "0a00", "0a01", "0a02", "0a03", "0a04", "0a05", "0a06",                          //
    "0b00", "0b01", "0b03", "0b04", "0b05", "0b06", "0b07", "0b08", "0b09", "0b0a",  //
    "0d00", "0d01", "0d02", "0d03",
};
// Line keys, reported under their own name.
constexpr std::string_view kLineKeys[] = {
    "line(0000)", "line(0001)", "line(0002)", "line(0003)", "line(0004)",
};
// Flexible keys 0x0C00..0x0C2F need no row: their first four characters pass through.
constexpr unsigned kFlexibleFirst = 0x0C00;
constexpr unsigned kFlexibleLast = 0x0C2F;

std::string_view BoundedText(const char* text) {
  if (text == nullptr) return {};
  std::size_t n = 0;
  while (n < kMgcpMaxArgumentText && text[n] != '\0') ++n;
  return {text, n};
}

struct ObservedEvent {
  std::string_view prefix;  // "fk" or empty
  std::string_view name;    // a slice of the key text; empty: no O: line
};

ObservedEvent Observe(std::string_view key) {
  for (std::string_view known : kFunctionKeys) {
    if (key == known) return {"fk", key};
  }
  for (std::string_view known : kLineKeys) {
    if (key == known) return {"", key};
  }
  if (key.size() >= 4) {
    std::uint8_t high = 0;
    std::uint8_t low = 0;
    HexByte(key.data(), &high);
    HexByte(key.data() + 2, &low);
    const unsigned code = (static_cast<unsigned>(high) << 8) | low;
    // Passed through in the case in which it was given.
    if (code >= kFlexibleFirst && code <= kFlexibleLast) return {"fk", key.substr(0, 4)};
  }
  return {};
}

std::uint32_t Finish(MgcpPacket& packet, const TextWriter& writer) {
  packet.length = writer.ok() ? static_cast<std::uint32_t>(writer.size()) : 0;
  return packet.length;
}

}  // namespace

int BuildNtfy(MgcpControlBlock& block, MgcpPacket& packet, const char* key_text) {
  const std::string_view key = BoundedText(key_text);
  const std::string_view endpoint = FieldText(block.endpointName);
  TextWriter writer(packet.data.data(), kMgcpPacketSize);
  writer.Format("NTFY %u %.*s MGCP 1.0\r\n", block.nextTransactionId,
                static_cast<int>(endpoint.size()), endpoint.data());
  writer.Format("X: %u\r\n", block.requestId);
  // K: names the transaction before this one, answered or not.
  const bool has_previous = block.nextTransactionId > 1;
  const std::uint32_t previous = block.nextTransactionId - 1;
  const ObservedEvent event = Observe(key);
  if (!event.name.empty()) {
    writer.Append("O: X-P/");
    writer.Append(event.prefix);
    writer.Append(event.name);
    writer.Append("\r\n");
    if (key == "0a03" && has_previous) writer.Format("K: %u\r\n", previous);
  }
  if (has_previous) writer.Format("K: %u\r\n", previous);
  ++block.nextTransactionId;
  Finish(packet, writer);
  return 0;
}

int BuildRsip(MgcpControlBlock& block, MgcpPacket& packet, std::uint32_t* transaction_id) {
  const std::uint32_t tid = block.nextTransactionId++;
  const std::string_view endpoint = FieldText(block.endpointName);
  TextWriter writer(packet.data.data(), kMgcpPacketSize);
  writer.Format("RSIP %u %.*s MGCP 1.0\r\n", tid, static_cast<int>(endpoint.size()),
                endpoint.data());
  writer.Append("RM: restart\r\n");
  Finish(packet, writer);
  if (transaction_id != nullptr) *transaction_id = tid;
  return 0;
}

int BuildDlcx(const MgcpControlBlock& block, MgcpPacket& packet) {
  const std::string_view endpoint = FieldText(block.endpointName);
  const std::string_view call_id = FieldText(block.callId);
  TextWriter writer(packet.data.data(), kMgcpPacketSize);
  writer.Format("DLCX %u %.*s MGCP 1.0\r\n", block.commandTransactionId,
                static_cast<int>(endpoint.size()), endpoint.data());
  writer.Format("C: %.*s\r\n", static_cast<int>(call_id.size()), call_id.data());
  writer.Format("I: %u\r\n", block.connectionId);
  Finish(packet, writer);
  return 0;
}

int BuildResponse(const MgcpControlBlock& block, MgcpPacket& packet, const char* code) {
  if (code == nullptr) {
    packet.length = 0;
    return 1;
  }
  const std::string_view text = BoundedText(code);
  TextWriter writer(packet.data.data(), kMgcpPacketSize);
  writer.Append(text);
  if (text == "200") {
    writer.Format(" %u OK\r\n", block.commandTransactionId);
  } else {
    // Other codes carry no commentary: two words.
    writer.Format(" %u\r\n", block.commandTransactionId);
  }
  Finish(packet, writer);
  return 0;
}

}  // namespace deskline
