#include "mgcp/mgcp_parse.h"

#include "mgcp/mgcp_sdp.h"
#include "mgcp/mgcp_text.h"

namespace deskline {

using mgcp_text::At;
using mgcp_text::ReadDecimal;

namespace {

int Nibble(char c) {
  int v = static_cast<unsigned char>(c) - 0x30;
  if (v >= 49) v -= 32;  // lower case onto upper case
  if (v > 9) v -= 7;     // 'A' onto 10
  return v;
}

std::uint32_t ClassifyVerb(std::string_view text, bool outbound) {
  if (text.size() < 4) return MGCP_EVENT_SEND_RESPONSE;
  const std::string_view verb = text.substr(0, 4);
  if (verb == "CRCX") return MGCP_EVENT_CRCX;
  if (verb == "MDCX") return MGCP_EVENT_MDCX;
  if (verb == "RQNT") return MGCP_EVENT_RQNT;
  if (verb == "DLCX") return outbound ? MGCP_EVENT_SEND_DLCX : MGCP_EVENT_DLCX;
  if (outbound && verb == "RSIP") return MGCP_EVENT_SEND_RSIP;
  if (outbound && verb == "NTFY") return MGCP_EVENT_SEND_NTFY;
  return MGCP_EVENT_SEND_RESPONSE;
}

// "C: " at `pos`: the rest of the line is the call id, unless the line from its "C" is 32
// bytes or more, or has no CR LF.
void ReadCallId(MgcpControlBlock& block, std::string_view text, std::size_t pos) {
  std::size_t line = 0;
  if (FindLineEnd(text.data() + pos, text.size() - pos, &line) != 0) return;
  if (line >= kMgcpCallIdSize) return;
  StoreField(block.callId, text.substr(pos + 3, line - 3));
}

void ReadMode(MgcpControlBlock& block, std::string_view text, std::size_t pos) {
  // Each word is compared for its own length, so "sendrecvX" still counts as sendrecv.
  if (At(text, pos, "sendrecv")) {
    block.connectionMode = MGCP_MODE_SENDRECV;
  } else if (At(text, pos, "recvonly")) {
    block.connectionMode = MGCP_MODE_RECVONLY;
  } else if (At(text, pos, "inactive")) {
    block.connectionMode = MGCP_MODE_INACTIVE;
  } else if (At(text, pos, "sendonly")) {
    block.connectionMode = MGCP_MODE_SENDONLY;
  }
}

}  // namespace

int HexByte(const char* text, std::uint8_t* out) {
  const int value = Nibble(text[0]) * 16 + Nibble(text[1]);
  if (out != nullptr) *out = static_cast<std::uint8_t>(value);
  return 0;
}

std::uint32_t ClassifyInbound(std::string_view text) { return ClassifyVerb(text, false); }

std::uint32_t ClassifyOutbound(std::string_view text) { return ClassifyVerb(text, true); }

int FindLineEnd(const char* text, std::size_t search_length, std::size_t* count) {
  if (text == nullptr) return 1;
  for (std::size_t i = 0; i + 1 < search_length; ++i) {
    if (text[i] == '\r' && text[i + 1] == '\n') {
      if (count != nullptr) *count = i;
      return 0;
    }
  }
  return 1;
}

int ParseCommandLine(MgcpControlBlock& block, std::string_view text, std::uint32_t* header_offset) {
  if (header_offset != nullptr) *header_offset = 0;
  if (text.data() == nullptr || text.empty()) return 1;
  // A first word other than four letters: nothing to read, the scan starts at byte 0.
  if (text.size() <= 4 || text[4] != ' ') return 0;
  const std::size_t tid_end = text.find(' ', 5);
  if (tid_end == std::string_view::npos) return 0;
  const std::string_view tid_word = text.substr(5, tid_end - 5);
  if (tid_word.size() > kMgcpMaxTransactionWord) return 1;
  const auto tid = mgcp_text::ReadTransactionWord(tid_word);
  if (!tid) return 1;
  // Stored before the endpoint test: a command for another endpoint is still answered with it.
  block.commandTransactionId = *tid;

  const std::size_t token_end = text.find(' ', tid_end + 1);
  if (token_end == std::string_view::npos) return 0;
  const std::string_view token = text.substr(tid_end + 1, token_end - tid_end - 1);
  if (token.size() > kMgcpMaxEndpointToken) return 1;
  // Only a prefix is tested: a longer token that starts with the name replaces it.
  if (!token.starts_with(FieldText(block.endpointName))) return 1;
  StoreField(block.endpointName, token);
  if (header_offset != nullptr) *header_offset = static_cast<std::uint32_t>(token_end);
  return 0;
}

int ParseTransactionId(std::string_view text, std::uint32_t* transaction_id) {
  if (text.data() == nullptr || text.size() < 2) return 1;
  const std::size_t blank = text.find(' ');
  if (blank == std::string_view::npos || blank >= text.size() - 1) return 1;
  std::size_t start = blank + 1;
  while (start < text.size() && text[start] == ' ') ++start;
  std::size_t end = start;
  while (end < text.size() && text[end] != ' ' && text[end] != '\r' && text[end] != '\n') ++end;
  const std::string_view word = text.substr(start, end - start);
  if (word.size() > kMgcpMaxTransactionWord) return 1;
  const auto tid = mgcp_text::ReadTransactionWord(word);
  if (!tid) return 1;
  if (transaction_id != nullptr) *transaction_id = *tid;
  return 0;
}

int ReadConnectionCommand(std::uint32_t operation, MgcpControlBlock& block, std::string_view text) {
  if (operation != MGCP_EVENT_CRCX && operation != MGCP_EVENT_MDCX &&
      operation != MGCP_EVENT_DLCX) {
    return 1;
  }
  std::uint32_t offset = 0;
  if (ParseCommandLine(block, text, &offset) != 0) return 1;

  // Every position is compared, so a literal also counts inside another line or the SDP body.
  for (std::size_t pos = offset; pos < text.size(); ++pos) {
    if (At(text, pos, "C: ")) {
      ReadCallId(block, text, pos);
    } else if (operation == MGCP_EVENT_CRCX && At(text, pos, "L: ")) {
      // Only a packetization period right behind the prefix is read.
      if (At(text, pos + 3, "p:")) block.packetizationPeriod = ReadDecimal(text, pos + 5);
    } else if (operation != MGCP_EVENT_DLCX && At(text, pos, "M: ")) {
      ReadMode(block, text, pos + 3);
    } else if (operation != MGCP_EVENT_CRCX && At(text, pos, "I: ")) {
      block.connectionId = ReadDecimal(text, pos + 3);
    } else if (operation != MGCP_EVENT_DLCX && At(text, pos, "v=")) {
      // Each further "v=" reads the body again from there, clearing the earlier run.
      ReadSdp(block, text, pos);
    }
  }
  return 0;
}

}  // namespace deskline
