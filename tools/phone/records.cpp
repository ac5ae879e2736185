#include "tools/phone/records.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace deskline::phone {
namespace {

// Numbers in the engine's records are 32-bit in this machine's byte order, at unaligned places.
std::int32_t LoadI32(std::span<const std::byte> data, std::size_t offset) {
  std::int32_t value;
  std::memcpy(&value, data.data() + offset, sizeof(value));
  return value;
}

std::uint32_t LoadU32(std::span<const std::byte> data, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, data.data() + offset, sizeof(value));
  return value;
}

std::uint8_t At(std::span<const std::byte> data, std::size_t i) {
  return i < data.size() ? static_cast<std::uint8_t>(data[i]) : 0;
}

// The text at `offset` up to its terminator or the end of what may be read.
std::string_view TextAt(std::span<const std::byte> data, std::size_t offset) {
  if (offset >= data.size()) return {};
  const char* start = reinterpret_cast<const char*>(data.data()) + offset;
  const std::size_t room = data.size() - offset;
  const void* zero = std::memchr(start, 0, room);
  return std::string_view(start, zero ? static_cast<const char*>(zero) - start : room);
}

// A marker with its terminator at the start of `data`.
bool HasMarker(std::span<const std::byte> data, std::string_view marker) {
  return data.size() > marker.size() && TextAt(data, 0) == marker;
}

std::string Format(const char* format, long a, long b = 0, long c = 0, long d = 0) {
  char line[160];
  std::snprintf(line, sizeof(line), format, a, b, c, d);
  return line;
}

constexpr const char* kLampStates[] = {"off",  "gon",  "g3i", "g3si", "g6i",
                                       "g6si", "g12i", "g24i", "ron", "r3i",
                                       "r3si", "r6i",  "r6si", "r12i", "r24i"};

constexpr std::size_t kToneRequestBytes = 10 + 8 * 4;
constexpr std::size_t kPbxSettingBytes = 12 + 2 * 4;
constexpr std::size_t kToneRecordBytes = 4 + 12;
constexpr std::size_t kSlcHeader = 3;
constexpr std::size_t kSlcRecordBytes = kSlcHeader + 972;
constexpr std::size_t kSlcEntries = 48;
constexpr std::size_t kSlcEntrySize = 20;
constexpr std::size_t kSlcEntryMaxBytes = 12;
// The display write's header: row+1, column+1 and six more bytes; text from position 8.
constexpr std::size_t kDisplayHeader = 8;
constexpr std::size_t kDtmsHeader = 19;

}  // namespace

std::size_t ReadableEventBytes(std::uint32_t code, std::uint32_t length) {
  switch (code) {
    case kEventRing:
    case kEventTone:
    case kEventPbxSetting:
      return std::max<std::size_t>(length, kSignalBufferBytes);
    default:
      return length;
  }
}

std::optional<ToneRequest> DecodeToneRequest(std::span<const std::byte> data) {
  if (data.size() < kToneRequestBytes || !HasMarker(data, "mgcp_tone")) return std::nullopt;
  ToneRequest tone;
  tone.kind = LoadI32(data, 10);
  for (int i = 0; i < 4; ++i) tone.volume[i] = LoadI32(data, 14 + 4 * static_cast<std::size_t>(i));
  tone.ring_class = LoadI32(data, 30);
  tone.pattern = LoadI32(data, 34);
  tone.melody = LoadI32(data, 38);
  return tone;
}

std::optional<PbxSetting> DecodePbxSetting(std::span<const std::byte> data) {
  if (data.size() < kPbxSettingBytes || !HasMarker(data, "pbx_setting")) return std::nullopt;
  return PbxSetting{LoadI32(data, 12), LoadI32(data, 16)};
}

std::optional<ToneRecord> DecodeToneRecord(std::span<const std::byte> data) {
  if (data.size() < kToneRecordBytes || TextAt(data, 0).substr(0, 4) != "tone") return std::nullopt;
  ToneRecord record;
  record.value1 = LoadU32(data, 4);
  record.value2 = LoadU32(data, 8);
  for (int i = 0; i < 3; ++i) record.flags[i] = At(data, 12 + static_cast<std::size_t>(i));
  return record;
}

std::optional<SlcRecord> DecodeSlcRecord(std::span<const std::byte> data) {
  if (data.size() < kSlcRecordBytes || TextAt(data, 0).substr(0, 3) != "slc") return std::nullopt;
  SlcRecord record;
  record.announced = LoadI32(data, kSlcHeader);
  const std::uint32_t mask[2] = {LoadU32(data, kSlcHeader + 4), LoadU32(data, kSlcHeader + 8)};
  for (std::size_t i = 0; i < kSlcEntries; ++i) {
    if ((mask[i / 32] & (1u << (i % 32))) == 0) continue;
    const std::size_t at = kSlcHeader + 12 + i * kSlcEntrySize;
    const std::size_t count = std::min<std::size_t>(LoadU32(data, at), kSlcEntryMaxBytes);
    SlcEntry entry;
    entry.index = static_cast<int>(i);
    for (std::size_t j = 0; j < count; ++j) entry.bytes.push_back(At(data, at + 4 + j));
    record.entries.push_back(std::move(entry));
  }
  return record;
}

const char* LampStateName(std::uint32_t status) {
  return status < std::size(kLampStates) ? kLampStates[status] : "unknown";
}

bool LampIsGreenFlashing(std::uint32_t status) { return status >= 2 && status <= 7; }

std::string PrintableText(std::string_view text) {
  std::string out;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte < 0x7f && byte != '\\') {
      out.push_back(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      out += escaped;
    }
  }
  return out;
}

std::string DescribeEvent(std::uint32_t code, std::span<const std::byte> data) {
  switch (code) {
    case kEventEnd:
      return "call ended";
    case kEventRing:
    case kEventTone: {
      const auto tone = DecodeToneRequest(data);
      if (!tone) return code == kEventRing ? "ring (no tone record)" : "tone (no tone record)";
      if (tone->kind == 2) {
        return Format("volume ringer %ld (slots %ld %ld %ld)", tone->volume[3], tone->volume[0],
                      tone->volume[1], tone->volume[2]);
      }
      return Format(code == kEventRing ? "ring pattern %ld melody %ld (class %ld)"
                                       : "tone pattern %ld melody %ld (class %ld)",
                    tone->pattern, tone->melody, tone->ring_class);
    }
    case kEventConnected:
      return "connected";
    case kEventMediaRecvOnly:
      return "media recvonly";
    case kEventMediaInactive:
      return "media inactive";
    case kEventMediaSendRecv:
      return "media sendrecv";
    case kEventMute:
      return "mute";
    case kEventUnmute:
      return "unmute";
    case kEventVoiceOff:
      return "ringer off";
    case kEventSpeakerOn:
      return "speaker on";
    case kEventSpeakerOff:
      return "speaker off";
    case kEventSpeakerOnOffHook:
      return "speaker on (off hook)";
    case kEventBgmMute:
      return "background music muted";
    case kEventHeadsetOn:
      return "headset on";
    case kEventHeadsetOff:
      return "headset off";
    case kEventPbxSetting: {
      const auto setting = DecodePbxSetting(data);
      if (!setting) return "pbx setting (no record)";
      std::string line = "pbx setting";
      if (setting->program_mode != -1) line += Format(" program mode %ld", setting->program_mode);
      if (setting->keypad_mode != -1) line += Format(" keypad mode %ld", setting->keypad_mode);
      return line;
    }
    case kEventToneRecord: {
      const auto record = DecodeToneRecord(data);
      if (!record) return "tone record (short)";
      return Format("tone record %ld %ld", record->value1, record->value2) +
             Format(" flags %ld %ld %ld", record->flags[0], record->flags[1], record->flags[2]);
    }
    case kEventSlcRecord: {
      const auto record = DecodeSlcRecord(data);
      if (!record) return "slc record (short)";
      return Format("slc record: %ld announced, %ld present", record->announced,
                    static_cast<long>(record->entries.size()));
    }
    case kEventPbxClass:
      return Format("pbx class %ld", At(data, 0));
    case kEventCodec:
      return "codec " + PrintableText(TextAt(data, 0).empty() ? "(none)" : TextAt(data, 0));
    case kEventMediaClosed:
      return "media closed";
    default:
      return Format("event %ld (%ld bytes)", code, static_cast<long>(data.size()));
  }
}

DisplayRecord DecodeDisplay(std::span<const std::byte> bytes) {
  DisplayRecord record;
  const std::string_view marker = TextAt(bytes, 0);
  if (marker.empty()) return record;
  auto plus_one = [&](std::size_t i) { return static_cast<std::uint8_t>(At(bytes, i) - 1); };

  if (marker == "navend" || marker == "cls" || marker == "rkey") {
    record.kind = marker == "cls" ? DisplayKind::kClear
                 : marker == "rkey" ? DisplayKind::kReleaseKey
                                    : DisplayKind::kNavEnd;
    record.name = std::string(marker);
    return record;
  }
  if (marker.size() == 4 && marker.substr(0, 3) == "cll") {
    record.kind = DisplayKind::kClearLine;
    record.name = "cll";
    record.row = plus_one(3);
    return record;
  }
  if (marker.size() >= 4 && marker.substr(0, 3) == "key") {
    // A count and that many bytes, cut at what may be read.
    record.kind = DisplayKind::kKey;
    record.name = "key";
    const std::size_t count = At(bytes, 3);
    for (std::size_t i = 0; i < count && 4 + i < bytes.size(); ++i) record.values.push_back(At(bytes, 4 + i));
    return record;
  }
  if (marker == "lcdb0") {
    record.kind = DisplayKind::kMode;
    record.name = "lcdb0";
    return record;
  }
  if ((marker.size() == 8 && marker.substr(0, 5) == "lcdb1") || marker == "clp") {
    // The three numbers arrive in the order of positions 6, 5 and 7.
    record.kind = DisplayKind::kMode;
    record.name = std::string(marker.substr(0, marker == "clp" ? 3 : 5));
    record.values = {plus_one(6), plus_one(5), plus_one(7)};
    return record;
  }
  if (marker.size() == 6 && (marker.substr(0, 5) == "lcdb2" || marker.substr(0, 5) == "lcdb3")) {
    record.kind = DisplayKind::kMode;
    record.name = std::string(marker.substr(0, 5));
    record.values = {plus_one(5)};
    return record;
  }
  if (marker == "dtmx" || marker == "dtmp" || marker == "dtmr") {
    record.kind = DisplayKind::kDtmf;
    record.name = std::string(marker);
    return record;
  }
  if (marker.substr(0, 4) == "dtms" && bytes.size() >= kDtmsHeader) {
    record.kind = DisplayKind::kDtmf;
    record.name = "dtms";
    for (std::size_t i = 4; i <= 8; ++i) record.values.push_back(plus_one(i));
    // Each mask marks, bit 3 first, which of its four bytes were really 0.
    for (std::size_t mask_at : {std::size_t{9}, std::size_t{14}}) {
      const std::uint8_t mask = At(bytes, mask_at);
      for (std::size_t i = 0; i < 4; ++i) {
        const bool zero = (mask & (0x08 >> i)) != 0;
        record.values.push_back(zero ? 0 : At(bytes, mask_at + 1 + i));
      }
    }
    record.text = std::string(TextAt(bytes, kDtmsHeader));
    return record;
  }

  // A display write: row+1, column+1, six header bytes, then the text.
  if (bytes.size() < kDisplayHeader) {
    record.kind = DisplayKind::kUnknown;
    return record;
  }
  auto blanks = [&](std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
      if (At(bytes, i) != ' ') return false;
    }
    return true;
  };
  if (At(bytes, 2) == 1 && At(bytes, 7) == ' ') {
    record.kind = DisplayKind::kAttributes;
    record.row = plus_one(0);
    record.column = plus_one(1);
    record.values = {At(bytes, 3), At(bytes, 4), plus_one(5), plus_one(6)};
    return record;
  }
  if (!blanks(2, 7)) {
    record.kind = DisplayKind::kUnknown;
    return record;
  }
  record.row = plus_one(0);
  record.column = plus_one(1);
  const char mark = static_cast<char>(At(bytes, 7));
  if (mark == '~' || mark == '>' || mark == '*' || mark == '#') {
    record.kind = DisplayKind::kCursor;
    record.cursor = mark;
    return record;
  }
  if (mark != ' ') {
    record.kind = DisplayKind::kUnknown;
    return record;
  }
  record.kind = DisplayKind::kText;
  record.text = std::string(TextAt(bytes, kDisplayHeader));
  return record;
}

std::string DescribeDisplay(const DisplayRecord& record) {
  std::string values;
  for (std::uint8_t v : record.values) values += " " + std::to_string(v);
  switch (record.kind) {
    case DisplayKind::kNothing:
      return "display (nothing)";
    case DisplayKind::kClear:
      return "display clear";
    case DisplayKind::kNavEnd:
      return "display navigation end";
    case DisplayKind::kClearLine:
      return "display clear row " + std::to_string(record.row);
    case DisplayKind::kReleaseKey:
      return "display rkey";
    case DisplayKind::kKey:
    case DisplayKind::kMode:
      return "display " + record.name + values;
    case DisplayKind::kDtmf:
      return "display " + record.name + values +
             (record.text.empty() ? "" : " \"" + PrintableText(record.text) + "\"");
    case DisplayKind::kText:
      return "display row " + std::to_string(record.row) + " col " + std::to_string(record.column) +
             ": \"" + PrintableText(record.text) + "\"";
    case DisplayKind::kCursor:
      return "display cursor '" + std::string(1, record.cursor) + "' row " +
             std::to_string(record.row) + " col " + std::to_string(record.column);
    case DisplayKind::kAttributes:
      return "display attributes row " + std::to_string(record.row) + values;
    case DisplayKind::kUnknown:
      break;
  }
  return "display (unrecognised record)";
}

void DisplayModel::Apply(const DisplayRecord& record) {
  // Rows and columns come from single bytes, so a row is never longer than 255 + text.
  switch (record.kind) {
    case DisplayKind::kClear:
      rows_.clear();
      break;
    case DisplayKind::kClearLine:
      if (record.row >= 0 && static_cast<std::size_t>(record.row) < rows_.size()) {
        rows_[static_cast<std::size_t>(record.row)].clear();
      }
      break;
    case DisplayKind::kText: {
      if (record.row < 0 || record.column < 0) break;
      const auto row = static_cast<std::size_t>(record.row);
      const auto column = static_cast<std::size_t>(record.column);
      if (rows_.size() <= row) rows_.resize(row + 1);
      std::string& line = rows_[row];
      if (line.size() < column + record.text.size()) line.resize(column + record.text.size(), ' ');
      line.replace(column, record.text.size(), record.text);
      break;
    }
    default:
      break;
  }
}

std::vector<std::string> DisplayModel::Render() const {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    if (!rows_[i].empty()) lines.push_back("row " + std::to_string(i) + ": " + PrintableText(rows_[i]));
  }
  return lines;
}

}  // namespace deskline::phone
