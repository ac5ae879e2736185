// The layout of the 1024-byte signal buffer as the call processor reads it: a marker text, and
// for some markers a record of 32-bit numbers in the machine's byte order, at unaligned places.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace deskline {

inline constexpr std::size_t kSignalBufferSize = 1024;

inline constexpr char kMarkerMgcpTone[] = "mgcp_tone";
// Behind "mgcp_tone" and its terminator: kind, volume0..3, ringClass, pattern, melody.
inline constexpr std::size_t kMgcpToneRecordOffset = sizeof(kMarkerMgcpTone);
inline constexpr std::size_t kMgcpTonePatternOffset = kMgcpToneRecordOffset + 6 * 4;
inline constexpr std::size_t kMgcpToneMelodyOffset = kMgcpToneRecordOffset + 7 * 4;
// "ks", then the key code and the lamp state.
inline constexpr std::size_t kKsKeyOffset = 2;
inline constexpr std::size_t kKsStatusOffset = 6;
// What event_callback gets for the two records: the marker and the record.
inline constexpr std::uint32_t kToneRecordDataLength = 4 + 12;
inline constexpr std::uint32_t kSlcRecordDataLength = 3 + 972;

inline std::uint32_t ReadSignalU32(const char* buffer, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, buffer + offset, sizeof(value));
  return value;
}

inline std::int32_t ReadSignalI32(const char* buffer, std::size_t offset) {
  std::int32_t value;
  std::memcpy(&value, buffer + offset, sizeof(value));
  return value;
}

}  // namespace deskline
