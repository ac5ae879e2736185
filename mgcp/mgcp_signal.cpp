#include "mgcp/mgcp_signal.h"

#include <cstring>
#include <optional>
#include <string_view>

#include "mgcp/mgcp_parse.h"
#include "mgcp/mgcp_text.h"
#include "support/tracer.h"

namespace deskline {

using mgcp_text::At;

namespace {

constexpr std::uint8_t kBlank = ' ';
// The last byte stays 0: the host gets display records as a bare pointer.
constexpr std::size_t kWritable = kSignalBufferSize - 1;

enum class Scan { kEnd, kGoOn };

// Bounded writes into the signal buffer; anything that would reach the last byte is dropped.
class Out {
 public:
  explicit Out(SignalBuffer& buffer) : buffer_(buffer) {}

  bool Byte(std::size_t pos, std::uint8_t value) {
    if (pos >= kWritable) return false;
    buffer_[pos] = static_cast<char>(value);
    return true;
  }
  std::uint8_t Get(std::size_t pos) const {
    return pos < kWritable ? static_cast<std::uint8_t>(buffer_[pos]) : 0;
  }
  // Raw text, no terminator: a record or a further marker may follow.
  void Text(std::size_t pos, std::string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) Byte(pos + i, static_cast<std::uint8_t>(text[i]));
  }
  // A marker that stands alone or ahead of a record: with its terminator, so that a signal
  // decoded over an earlier one in the same buffer still compares whole.
  void Marker(std::string_view text) {
    Text(0, text);
    Byte(text.size(), 0);
  }
  void Fill(std::size_t pos, std::size_t count, std::uint8_t value) {
    for (std::size_t i = 0; i < count; ++i) Byte(pos + i, value);
  }
  void U32(std::size_t pos, std::uint32_t value) {
    if (pos > kWritable || kWritable - pos < sizeof(value)) return;
    std::memcpy(buffer_.data() + pos, &value, sizeof(value));
  }
  void I32(std::size_t pos, std::int32_t value) { U32(pos, static_cast<std::uint32_t>(value)); }
  std::uint32_t LoadU32(std::size_t pos) const { return LoadSignalU32(buffer_, pos); }

 private:
  SignalBuffer& buffer_;
};

// One hexadecimal byte at `pos`, or nothing if the datagram ends first.
std::optional<std::uint8_t> Hex(std::string_view text, std::size_t pos) {
  if (pos > text.size() || text.size() - pos < 2) return std::nullopt;
  std::uint8_t value = 0;
  HexByte(text.data() + pos, &value);
  return value;
}

bool Has(std::string_view text, std::size_t pos, std::size_t count) {
  return pos <= text.size() && text.size() - pos >= count;
}

std::uint8_t PlusOne(std::uint8_t value) { return static_cast<std::uint8_t>(value + 1); }

void WriteToneRecord(Out& out, std::int32_t kind, const std::int32_t (&volume)[4],
                     std::int32_t ring_class, std::int32_t pattern, std::int32_t melody) {
  out.Marker("mgcp_tone");
  out.I32(kToneKindOffset, kind);
  for (std::size_t i = 0; i < 4; ++i) out.I32(kToneVolumeOffset + 4 * i, volume[i]);
  out.I32(kToneRingClassOffset, ring_class);
  out.I32(kTonePatternOffset, pattern);
  out.I32(kToneMelodyOffset, melody);
}

void WritePbxSetting(Out& out, std::int32_t program_mode, std::int32_t key_pad_mode) {
  out.Marker("pbx_setting");
  out.I32(kPbxProgramModeOffset, program_mode);
  out.I32(kPbxKeyPadModeOffset, key_pad_mode);
}

// ---- The twelve signals. `arg` is the position behind the "(". -----------------------------

Scan DecodeHset(std::string_view text, std::size_t arg, Out& out) {
  if (At(text, arg, "00")) {
    out.Marker("hset_off");
  } else if (At(text, arg, "01")) {
    out.Marker("hset_on");
  }
  return Scan::kEnd;
}

Scan DecodePctl(std::string_view text, std::size_t arg, Out& out) {
  if (!Has(text, arg, 2)) return Scan::kEnd;
  const char x = text[arg];
  const char y = text[arg + 1];
  std::string_view word;
  switch (y) {
    case '1':
      word = x == '1' ? "sp_on_offhook" : x == '0' ? "bgm_mute" : "mute";
      break;
    case '3':
      word = x == '2' ? "mute" : x == '0' ? "sp_on" : "";
      break;
    case '0':
      word = x == '2' ? "mute" : x == '0' ? "sp_off" : "";
      break;
    default:
      word = "unmute";
      break;
  }
  if (!word.empty()) out.Marker(word);
  return Scan::kEnd;
}

struct LampState {
  std::string_view name;
  std::uint32_t state;
};
constexpr LampState kLampStates[] = {
    {"off", 0},  {"gon", 1},  {"g3i", 2},  {"g3si", 3},  {"g6i", 4},
    {"g6si", 5}, {"g12i", 6}, {"g24i", 7}, {"ron", 8},   {"r3i", 9},
    {"r3si", 10}, {"r6i", 11}, {"r6si", 12}, {"r12i", 13}, {"r24i", 14},
};

Scan DecodeKs(std::string_view text, std::size_t arg, Out& out) {
  // "kkkk,state)": the comma at 4, a state of 3 or 4 letters, then the ")".
  const std::size_t close = text.find(')', arg);
  if (close == std::string_view::npos || close <= arg + 5) return Scan::kEnd;
  if (text[arg + 4] != ',') return Scan::kEnd;
  const std::string_view name = text.substr(arg + 5, close - arg - 5);
  if (name.size() != 3 && name.size() != 4) return Scan::kEnd;
  for (const LampState& lamp : kLampStates) {
    if (lamp.name != name) continue;
    std::uint8_t high = 0;
    std::uint8_t low = 0;
    HexByte(text.data() + arg, &high);
    HexByte(text.data() + arg + 2, &low);
    out.Text(0, "ks");
    out.U32(kKsKeyCodeOffset, (static_cast<std::uint32_t>(high) << 8) | low);
    out.U32(kKsStateOffset, lamp.state);
    break;
  }
  return Scan::kEnd;
}

Scan DecodePgmm(std::string_view text, std::size_t arg, Out& out) {
  const auto mode = Hex(text, arg);
  if (!mode) return Scan::kGoOn;
  WritePbxSetting(out, *mode, -1);
  DL_TRACE(TRACE_DETAIL, "[parse_pgmm_packet] ProgramMode = %d", static_cast<int>(*mode));
  return Scan::kGoOn;
}

Scan DecodeCspc(std::string_view text, std::size_t arg, Out& out) {
  const auto count = Hex(text, arg);
  if (!count) return Scan::kGoOn;
  // A list of four-character items; an item whose byte is 0 carries the keypad mode.
  std::size_t cursor = arg + 2;
  unsigned counter = 0;
  std::int32_t key_pad_mode = -1;
  while (counter < *count) {
    const auto item = Hex(text, cursor);
    if (!item) break;
    if (*item != 0) {
      cursor += 4;
      counter += 4;
      continue;
    }
    cursor += 2;
    counter += 2;
    const auto mode = Hex(text, cursor);
    if (!mode) break;
    key_pad_mode = *mode;
    cursor += 2;
    counter += 2;
  }
  WritePbxSetting(out, -1, key_pad_mode);
  DL_TRACE(TRACE_DETAIL, "[parse_cspc_packet] KeyPadMode = %d", static_cast<int>(key_pad_mode));
  return Scan::kGoOn;
}

Scan DecodeVctl(MgcpControlBlock& block, std::string_view text, std::size_t arg, Out& out) {
  const auto slot = Hex(text, arg);
  const auto value = Hex(text, arg + 2);
  if (!slot || !value) return Scan::kGoOn;
  std::int32_t volume[4] = {-1, -1, -1, -1};
  if (*slot <= 3) volume[*slot] = *value;
  WriteToneRecord(out, kToneKindVolume, volume, -1, -1, -1);
  DL_TRACE(TRACE_DETAIL, "[MGCP Volume Data] Ringer = %d", static_cast<int>(volume[3]));
  // Only a ringer volume of 0 silences the ringer; another slot leaves volume3 at -1.
  if (volume[3] == 0) {
    block.ringerActive = 0;
    out.Text(0, "voff");
  } else {
    block.ringerActive = 1;
  }
  return Scan::kGoOn;
}

Scan DecodeRing(MgcpControlBlock& block, std::string_view text, std::size_t arg, Out& out) {
  if (!Has(text, arg, 6)) return Scan::kGoOn;
  if (At(text, arg, "000000")) {
    block.ringerActive = 0;
    out.Text(0, "voff");
    return Scan::kGoOn;
  }
  const std::int32_t volume[4] = {-1, -1, -1, -1};
  const std::uint8_t ring_class = *Hex(text, arg);
  const std::uint8_t pattern = *Hex(text, arg + 2);
  const std::uint8_t melody = *Hex(text, arg + 4);
  WriteToneRecord(out, kToneKindRing, volume, ring_class, pattern, melody);
  DL_TRACE(TRACE_DETAIL, "[MGCP Tone Data] Pattern = %d, Melody = %d", static_cast<int>(pattern),
           static_cast<int>(melody));
  block.ringerActive = 1;
  return Scan::kGoOn;
}

Scan DecodeTone(std::string_view text, std::size_t arg, Out& out) {
  const std::size_t close = text.find(')', arg);
  if (close == std::string_view::npos) return Scan::kGoOn;
  const std::size_t end = close - arg;
  out.Text(0, "tone");
  out.Fill(kToneRecordValue1Offset, kToneRecordSize, 0);
  // Fields by fixed position, read until the first position at or behind the ")"; the ")"
  // stands behind each byte read, so both characters of a hex field are there.
  if (end > 0) out.U32(kToneRecordValue1Offset, *Hex(text, arg));
  constexpr std::size_t kFlagPositions[] = {3, 5, 7};
  for (std::size_t i = 0; i < 3; ++i) {
    if (kFlagPositions[i] >= end) return Scan::kGoOn;
    out.Byte(kToneRecordFlagsOffset + i, text[arg + kFlagPositions[i]] > '0' ? 1 : 0);
  }
  if (10 < end) out.U32(kToneRecordValue2Offset, *Hex(text, arg + 10));
  return Scan::kGoOn;
}

Scan DecodeSlc(std::string_view text, std::size_t arg, Out& out) {
  if (text.find(')', arg) == std::string_view::npos) return Scan::kGoOn;
  if (!At(text, arg, "01")) return Scan::kGoOn;
  const auto announced = Hex(text, arg + 2);
  if (!announced) return Scan::kGoOn;
  const std::size_t count = *announced < kSlcMaxEntries ? *announced : kSlcMaxEntries;
  out.Text(0, "slc");
  out.Fill(kSlcEntryCountOffset, kSlcRecordSize, 0);
  out.I32(kSlcEntryCountOffset, static_cast<std::int32_t>(count));
  std::size_t cursor = arg + 4;
  for (std::size_t i = 0; i < count; ++i) {
    const auto index = Hex(text, cursor);
    const auto byte_count = Hex(text, cursor + 2);
    if (!index || !byte_count) return Scan::kGoOn;
    cursor += 4;
    if (*index >= kSlcMaxEntries) {
      cursor += 2u * *byte_count;  // skipped with all of its bytes
      continue;
    }
    // At most 12 bytes are kept, and the walk steps over only what it kept.
    const std::size_t keep = *byte_count < kSlcMaxEntryBytes ? *byte_count : kSlcMaxEntryBytes;
    const std::size_t entry = kSlcEntriesOffset + kSlcEntrySize * *index;
    std::size_t stored = 0;
    for (; stored < keep; ++stored) {
      const auto value = Hex(text, cursor);
      if (!value) break;
      out.Byte(entry + 4 + stored, *value);
      cursor += 2;
    }
    out.U32(entry, static_cast<std::uint32_t>(stored));
    const std::size_t mask = kSlcPresentMaskOffset + 4 * (*index / 32);
    out.U32(mask, out.LoadU32(mask) | (1u << (*index % 32)));
    if (stored < keep) return Scan::kGoOn;
  }
  return Scan::kGoOn;
}

Scan DecodeLas(std::string_view text, std::size_t arg, Out& out) {
  if (!At(text, arg, "0000180000")) return Scan::kGoOn;
  const auto count = Hex(text, arg + 10);
  if (!count) return Scan::kGoOn;
  out.Text(0, "key");
  out.Byte(3, *count);
  for (std::size_t i = 0; i < *count; ++i) {
    const auto value = Hex(text, arg + 12 + 2 * i);
    if (!value) break;
    out.Byte(4 + i, *value);
  }
  return Scan::kGoOn;
}

// Positions that must not hold 0 are raised to 1; the mask byte says which ones were 0.
void MaskZeros(Out& out, std::size_t mask_pos) {
  std::uint8_t mask = 0xF0;
  for (std::size_t i = 0; i < 4; ++i) {
    if (out.Get(mask_pos + 1 + i) == 0) {
      mask |= static_cast<std::uint8_t>(0x08u >> i);
      out.Byte(mask_pos + 1 + i, 1);
    }
  }
  out.Byte(mask_pos, mask);
}

void DecodeDtms(std::string_view text, std::size_t run, Out& out) {
  // Nine fixed bytes, N text bytes (N = byte 2), then a tail of five.
  std::uint8_t head[9] = {};
  std::size_t head_count = 0;
  std::size_t cursor = run;
  for (; head_count < 9; ++head_count, cursor += 2) {
    const auto value = Hex(text, cursor);
    if (!value) break;
    head[head_count] = *value;
  }
  out.Text(0, "dtms");
  out.Fill(4, 13, kBlank);
  if (head_count > 0) out.Byte(4, PlusOne(head[0]));
  if (head_count > 1) out.Byte(5, PlusOne(head[1]));
  if (head_count > 3) out.Byte(6, PlusOne(head[3]));
  if (head_count > 4) out.Byte(7, PlusOne(head[4]));
  for (std::size_t i = 5; i < head_count; ++i) out.Byte(10 + (i - 5), head[i]);
  if (head_count == 9) {
    const std::size_t text_count = head[2];
    std::size_t placed = 0;
    for (; placed < text_count; ++placed, cursor += 2) {
      const auto value = Hex(text, cursor);
      if (!value) break;
      out.Byte(19 + placed, *value);
    }
    if (placed == text_count) {
      std::uint8_t tail[5] = {};
      std::size_t tail_count = 0;
      for (; tail_count < 5; ++tail_count, cursor += 2) {
        const auto value = Hex(text, cursor);
        if (!value) break;
        tail[tail_count] = *value;
      }
      for (std::size_t i = 0; i < tail_count && i < 4; ++i) out.Byte(15 + i, tail[i]);
      if (tail_count == 5) out.Byte(8, PlusOne(tail[4]));
    }
  }
  MaskZeros(out, 9);
  MaskZeros(out, 14);
}

Scan DecodeDtm(std::string_view text, std::size_t arg, Out& out) {
  if (At(text, arg, "65")) {
    out.Marker("dtmx");
  } else if (At(text, arg, "70")) {
    out.Marker("dtmp");
  } else if (At(text, arg, "72")) {
    out.Marker("dtmr");
  } else if (At(text, arg, "73")) {
    DecodeDtms(text, arg + 2, out);
  } else {
    return Scan::kGoOn;
  }
  return Scan::kEnd;
}

// Three hexadecimal bytes to display positions 6, 5 and 7, each plus 1.
void ThreeBytes(std::string_view text, std::size_t pos, Out& out, std::size_t base) {
  constexpr std::size_t kTargets[] = {6, 5, 7};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto value = Hex(text, pos + 2 * i);
    if (!value) return;
    out.Byte(base + kTargets[i], PlusOne(*value));
  }
}

void DecodeDisplayWrite(std::string_view text, std::size_t arg, Out& out, std::size_t base) {
  out.Byte(base + 0, 1);
  out.Byte(base + 1, 1);
  out.Fill(base + 2, 6, kBlank);
  if (At(text, arg, "32")) {
    if (!At(text, arg + 2, "00")) return;
    out.Byte(base + 2, 1);
    // From the fifth byte of the argument: two bytes as they are, two plus 1.
    for (std::size_t i = 0; i < 4; ++i) {
      const auto value = Hex(text, arg + 8 + 2 * i);
      if (!value) return;
      out.Byte(base + 3 + i, i < 2 ? *value : PlusOne(*value));
    }
    return;
  }
  if (At(text, arg, "33")) {
    if (!At(text, arg + 2, "00")) return;
    std::uint8_t mark = kBlank;
    if (At(text, arg + 4, "00")) {
      mark = '~';
    } else if (At(text, arg + 4, "01")) {
      mark = '>';
    } else if (At(text, arg + 4, "02")) {
      mark = '*';
    } else if (At(text, arg + 4, "03")) {
      mark = '#';
    }
    out.Byte(base + 7, mark);
    return;
  }
  const auto row = Hex(text, arg + 2);
  if (!row) return;
  out.Byte(base + 0, PlusOne(*row));
  const auto column = Hex(text, arg + 4);
  if (!column) return;
  out.Byte(base + 1, PlusOne(*column));
  const auto length = Hex(text, arg + 6);
  if (!length) return;
  // Under "22" a byte below 31 stands for that many blanks; the run stops at the buffer's end.
  const bool blank_runs = At(text, arg, "22");
  std::size_t pos = base + 8;
  for (std::size_t i = 0; i < *length; ++i) {
    const auto value = Hex(text, arg + 8 + 2 * i);
    if (!value) return;
    if (blank_runs && *value < 31) {
      for (std::uint8_t k = 0; k < *value; ++k) {
        if (!out.Byte(pos++, kBlank)) return;
      }
    } else if (!out.Byte(pos++, *value)) {
      return;
    }
  }
}

Scan DecodeLcdp(std::string_view text, std::size_t arg, Out& out) {
  out.Text(0, "lcd");
  constexpr std::size_t kBase = 3;  // positions below count from behind "lcd"
  if (At(text, arg, "3201000000000000")) {
    out.Text(kBase, "navend");
  } else if (At(text, arg, "300100000000") || At(text, arg, "220500030A0A04")) {
    out.Text(kBase, "cls");
  } else if (At(text, arg, "300A")) {
    out.Text(kBase, "cll");
    if (const auto value = Hex(text, arg + 4)) out.Byte(kBase + 3, PlusOne(*value));
  } else if (At(text, arg, "3007000018")) {
    out.Text(kBase, "key");
    out.Byte(kBase + 3, 1);
    if (const auto value = Hex(text, arg + 10)) out.Byte(kBase + 4, *value);
  } else if (At(text, arg, "3003000018") || At(text, arg, "3008000018")) {
    out.Text(kBase, "rkey");
  } else if (At(text, arg, "30")) {
    if (At(text, arg + 2, "04")) {
      out.Text(kBase, "lcdb1");
      ThreeBytes(text, arg + 4, out, kBase);
    } else if (At(text, arg + 2, "05")) {
      out.Text(kBase, "lcdb0");
    } else if (At(text, arg + 2, "0B") || At(text, arg + 2, "0C")) {
      out.Text(kBase, At(text, arg + 2, "0B") ? "lcdb2" : "lcdb3");
      if (const auto value = Hex(text, arg + 4)) out.Byte(kBase + 5, PlusOne(*value));
    } else if (At(text, arg + 2, "09")) {
      out.Text(kBase, "clp");
      ThreeBytes(text, arg + 4, out, kBase);
    }
  } else {
    DecodeDisplayWrite(text, arg, out, kBase);
  }
  return Scan::kEnd;
}

// `start` is the position of the "X-P"; the name stands four characters behind it.
Scan DecodeSignal(MgcpControlBlock& block, std::string_view text, std::size_t start,
                  SignalBuffer& signal) {
  Out out(signal);
  const std::size_t name = start + 4;
  auto arg = [name](std::string_view signal_name) { return name + signal_name.size() + 1; };
  if (At(text, name, "hset")) return DecodeHset(text, arg("hset"), out);
  if (At(text, name, "pctl")) return DecodePctl(text, arg("pctl"), out);
  if (At(text, name, "ks")) return DecodeKs(text, arg("ks"), out);
  if (At(text, name, "pgmm")) return DecodePgmm(text, arg("pgmm"), out);
  if (At(text, name, "cspc")) return DecodeCspc(text, arg("cspc"), out);
  if (At(text, name, "vctl")) return DecodeVctl(block, text, arg("vctl"), out);
  if (At(text, name, "ring")) return DecodeRing(block, text, arg("ring"), out);
  if (At(text, name, "tone")) return DecodeTone(text, arg("tone"), out);
  if (At(text, name, "slc")) return DecodeSlc(text, arg("slc"), out);
  if (At(text, name, "las")) return DecodeLas(text, arg("las"), out);
  if (At(text, name, "dtm")) return DecodeDtm(text, arg("dtm"), out);
  if (At(text, name, "lcdp")) return DecodeLcdp(text, arg("lcdp"), out);
  return Scan::kGoOn;  // unknown name: the buffer stays empty
}

}  // namespace

int ParseSignal(MgcpControlBlock& block, MgcpPacket* packet, SignalBuffer& signal) {
  if (packet == nullptr || packet->length == 0) return 1;
  if (packet->length > kMgcpPacketSize) packet->length = kMgcpPacketSize;
  const std::string_view text = packet->Text();
  std::uint32_t header_offset = 0;
  if (ParseCommandLine(block, text, &header_offset) != 0) {
    packet->length = 0;
    return 1;
  }

  static constexpr std::string_view kSignalLine = "S: X-P";
  std::optional<std::size_t> start;
  std::size_t from = 0;
  for (;;) {
    const std::size_t found = text.find(kSignalLine, from);
    if (found == std::string_view::npos) break;
    start = found + 3;  // the "X-P"
    if (DecodeSignal(block, text, *start, signal) == Scan::kEnd) break;
    // A further "S: " line decodes over the same buffer.
    from = *start;
  }
  if (!start) {
    packet->length = 0;
    return 0;
  }
  const std::size_t comma = text.find(",X-P", *start);
  if (comma == std::string_view::npos) {
    packet->length = 0;
    return 0;
  }
  // Cut the signal out up to the "X-P" behind the comma: the next one now stands behind "S: ".
  const std::size_t next = comma + 1;
  const std::size_t size = text.size();
  std::memmove(packet->data.data() + *start, packet->data.data() + next, size - next);
  packet->length = static_cast<std::uint32_t>(size - (next - *start));
  return 0;
}

int WalkSignals(MgcpControlBlock& block, MgcpPacket& packet,
                const std::function<void(const SignalBuffer&)>& post, std::mutex* block_lock) {
  const std::uint32_t saved_length = packet.length;
  SignalBuffer signal{};
  int posts = 0;
  // Each pass shortens the packet or ends it, so the walk always finishes.
  while (packet.length > 0) {
    signal.fill('\0');
    int parsed = 0;
    if (block_lock != nullptr) {
      std::lock_guard lock(*block_lock);
      parsed = ParseSignal(block, &packet, signal);
    } else {
      parsed = ParseSignal(block, &packet, signal);
    }
    if (parsed == 0) {
      ++posts;
      if (post) post(signal);
    }
  }
  packet.length = saved_length;
  return posts;
}

}  // namespace deskline
