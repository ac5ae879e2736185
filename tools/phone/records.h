// Decoders for what the engine hands the host through its callbacks: lamp states, display
// records and the records behind event codes. They read only the bytes they are given.
//
// The engine's records come out of its 1024-byte signal buffer: event_callback's `length`
// counts only the marker text for most codes, and display_callback gives no length at all, so
// the callback side decides how far it may read (ReadableEventBytes, kDisplayReadableBytes).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace deskline::phone {

inline constexpr std::size_t kSignalBufferBytes = 1024;
// display_callback's text lies at least 3 bytes into a signal buffer (behind "lcd").
inline constexpr std::size_t kDisplayReadableBytes = kSignalBufferBytes - 3;

// Event codes of event_callback.
enum EventCode : std::uint32_t {
  kEventEnd = 1,
  kEventRing = 2,
  kEventConnected = 7,
  kEventMediaRecvOnly = 16,
  kEventMediaInactive = 17,
  kEventMediaSendRecv = 18,
  kEventMute = 20,
  kEventUnmute = 21,
  kEventVoiceOff = 22,
  kEventTone = 23,
  kEventSpeakerOn = 27,
  kEventSpeakerOff = 28,
  kEventSpeakerOnOffHook = 29,
  kEventPbxSetting = 30,
  kEventBgmMute = 31,
  kEventToneRecord = 32,
  kEventSlcRecord = 33,
  kEventPbxClass = 34,
  kEventCodec = 35,
  kEventMediaClosed = 36,
  kEventHeadsetOn = 37,
  kEventHeadsetOff = 38,
};

// system_callback codes the engine raises itself.
inline constexpr std::uint32_t kSystemConnectionLost = 24;
inline constexpr std::uint32_t kSystemRestartDemanded = 26;

// How many bytes at `data` may be read for an event: the records behind "mgcp_tone" and
// "pbx_setting" sit past the counted text, inside the signal buffer; everything else is
// bounded by the length the engine gives (plus the terminator of a counted text).
std::size_t ReadableEventBytes(std::uint32_t code, std::uint32_t length);

// The "mgcp_tone" record of ring (kind 1) and volume (kind 2) signals.
struct ToneRequest {
  std::int32_t kind = 0;
  std::int32_t volume[4] = {-1, -1, -1, -1};
  std::int32_t ring_class = -1;
  std::int32_t pattern = -1;
  std::int32_t melody = -1;
};
std::optional<ToneRequest> DecodeToneRequest(std::span<const std::byte> data);

struct PbxSetting {
  std::int32_t program_mode = -1;
  std::int32_t keypad_mode = -1;
};
std::optional<PbxSetting> DecodePbxSetting(std::span<const std::byte> data);

// The "tone" record: two values and three flags.
struct ToneRecord {
  std::uint32_t value1 = 0;
  std::uint32_t value2 = 0;
  std::uint8_t flags[3] = {0, 0, 0};
};
std::optional<ToneRecord> DecodeToneRecord(std::span<const std::byte> data);

// The "slc" record: up to 48 entries of up to 12 bytes, by index.
struct SlcEntry {
  int index = 0;
  std::vector<std::uint8_t> bytes;
};
struct SlcRecord {
  std::int32_t announced = 0;
  std::vector<SlcEntry> entries;  // the present ones, by index
};
std::optional<SlcRecord> DecodeSlcRecord(std::span<const std::byte> data);

// One compact line for an event, e.g. "ring pattern 2 melody 3 (class 1)".
std::string DescribeEvent(std::uint32_t code, std::span<const std::byte> data);

// Lamp state names as the PBX sends them: "off", "gon", "g3i", ... "r24i".
const char* LampStateName(std::uint32_t status);
bool LampIsGreenFlashing(std::uint32_t status);

enum class DisplayKind {
  kNothing,     // an empty record
  kClear,       // "cls": the whole display
  kNavEnd,      // "navend"
  kClearLine,   // "cll": one row
  kKey,         // "key": a byte count and the bytes
  kReleaseKey,  // "rkey"
  kMode,        // "lcdb0".."lcdb3", "clp" with their numbers
  kDtmf,        // "dtmx", "dtmp", "dtmr", "dtms" with its record
  kText,        // text at a row and column
  kCursor,      // a cursor mark at a row and column
  kAttributes,  // the "32" write: two raw bytes and two numbers
  kUnknown,
};

struct DisplayRecord {
  DisplayKind kind = DisplayKind::kNothing;
  std::string name;                  // the marker where there is one
  int row = -1;                      // kClearLine, kText, kCursor
  int column = -1;                   // kText, kCursor
  std::string text;                  // kText and "dtms": the bytes as stored
  char cursor = ' ';                 // kCursor: '~', '>', '*', '#' or ' '
  std::vector<std::uint8_t> values;  // numbers, with the engine's plus-one taken off
};

// `bytes` is what may be read at display_callback's pointer.
DisplayRecord DecodeDisplay(std::span<const std::byte> bytes);
std::string DescribeDisplay(const DisplayRecord& record);

// Display text as printable ASCII; other bytes as \xNN.
std::string PrintableText(std::string_view text);

// The screen as the display records have drawn it so far. Not thread-safe.
class DisplayModel {
 public:
  void Apply(const DisplayRecord& record);
  // Non-empty rows as "row N: text", in row order.
  std::vector<std::string> Render() const;

 private:
  std::vector<std::string> rows_;
};

}  // namespace deskline::phone
