// The signal buffer: one decoded X-P signal, as the MGCP endpoint writes it and the call
// processor reads it. A marker text and, for some markers, a record behind it. Numbers in
// records are 32-bit in the machine's byte order at unaligned offsets: read them with
// LoadSignalU32/I32. Zero-filled before each signal; the last byte always stays 0, so the text
// forms can be read as C strings.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace deskline {

inline constexpr std::size_t kSignalBufferSize = 1024;
using SignalBuffer = std::array<char, kSignalBufferSize>;

// "ks": key code and lamp state.
inline constexpr std::size_t kKsKeyCodeOffset = 2;
inline constexpr std::size_t kKsStateOffset = 6;

// "mgcp_tone" with its terminator (10 bytes), then eight signed 32-bit fields.
inline constexpr char kMarkerMgcpTone[] = "mgcp_tone";
inline constexpr std::size_t kToneKindOffset = 10;
inline constexpr std::size_t kToneVolumeOffset = 14;  // volume0..volume3, 4 bytes apart
inline constexpr std::size_t kToneRingClassOffset = 30;
inline constexpr std::size_t kTonePatternOffset = 34;
inline constexpr std::size_t kToneMelodyOffset = 38;
inline constexpr std::int32_t kToneKindRing = 1;
inline constexpr std::int32_t kToneKindVolume = 2;

// "pbx_setting" with its terminator (12 bytes), then two signed 32-bit fields.
inline constexpr std::size_t kPbxProgramModeOffset = 12;
inline constexpr std::size_t kPbxKeyPadModeOffset = 16;

// "tone" unterminated, then value1, value2 (unsigned 32), three flag bytes and a 0: 12 bytes.
inline constexpr std::size_t kToneRecordValue1Offset = 4;
inline constexpr std::size_t kToneRecordValue2Offset = 8;
inline constexpr std::size_t kToneRecordFlagsOffset = 12;
inline constexpr std::size_t kToneRecordSize = 12;

// "slc" unterminated, then entryCount, presentMask[2], 48 entries of byteCount + 16 bytes.
inline constexpr std::size_t kSlcEntryCountOffset = 3;
inline constexpr std::size_t kSlcPresentMaskOffset = 7;
inline constexpr std::size_t kSlcEntriesOffset = 15;
inline constexpr std::size_t kSlcEntrySize = 20;
inline constexpr std::size_t kSlcMaxEntries = 48;
inline constexpr std::size_t kSlcMaxEntryBytes = 12;
inline constexpr std::size_t kSlcRecordSize = 972;

// What event_callback gets for the two records: the marker and the record.
inline constexpr std::uint32_t kToneRecordDataLength = 4 + kToneRecordSize;
inline constexpr std::uint32_t kSlcRecordDataLength = 3 + kSlcRecordSize;

// `buffer` holds kSignalBufferSize bytes; `offset` + 4 lies inside it.
inline std::uint32_t LoadSignalU32(const char* buffer, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, buffer + offset, sizeof(value));
  return value;
}
inline std::uint32_t LoadSignalU32(const SignalBuffer& buffer, std::size_t offset) {
  return LoadSignalU32(buffer.data(), offset);
}
inline std::int32_t LoadSignalI32(const char* buffer, std::size_t offset) {
  return static_cast<std::int32_t>(LoadSignalU32(buffer, offset));
}
inline std::int32_t LoadSignalI32(const SignalBuffer& buffer, std::size_t offset) {
  return LoadSignalI32(buffer.data(), offset);
}

}  // namespace deskline
