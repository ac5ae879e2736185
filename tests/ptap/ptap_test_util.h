// Helpers of the PTAP tests: hex bytes, datagrams as the PBX sends them, and recorders.
#pragma once

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ptap/ptap.h"

namespace deskline::testing {

using Bytes = std::vector<std::uint8_t>;

// "50 54 41 50" -> bytes; anything but hex digits is skipped.
inline Bytes Hex(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  }
  Bytes out;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(std::uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// The terminal's MAC element and the end mark that close every body it sends.
inline const std::string kMacEnd = " 07 00 06 00 1A 2B 3C 4D 5E FF";

inline std::uint32_t TidOf(const Bytes& d) {
  return std::uint32_t{d[4]} << 24 | std::uint32_t{d[5]} << 16 | d[6] << 8 | d[7];
}

// A datagram as the PBX sends it. Raw writes the length as given, so that a test can lie.
struct Pbx {
  Pbx(std::uint8_t type, std::uint32_t tid)
      : bytes{'P', 'T', 'A', 'P', std::uint8_t(tid >> 24), std::uint8_t(tid >> 16),
              std::uint8_t(tid >> 8), std::uint8_t(tid), type} {}
  Pbx& Raw(std::uint8_t tag, std::uint16_t length, const Bytes& value) {
    bytes.insert(bytes.end(), {tag, std::uint8_t(length >> 8), std::uint8_t(length)});
    bytes.insert(bytes.end(), value.begin(), value.end());
    return *this;
  }
  Pbx& El(std::uint8_t tag, const Bytes& value) {
    return Raw(tag, std::uint16_t(value.size()), value);
  }
  Pbx& Byte(std::uint8_t tag, std::uint8_t value) { return El(tag, {value}); }
  Pbx& End() { return bytes.push_back(0xFF), *this; }
  Bytes bytes;
};

// 32 bytes of an extended response that passes, announcing `value` and `pbx_class`.
inline Bytes ExtendedResponse(std::uint16_t value, std::uint16_t pbx_class) {
  Bytes v(32, 0x00);
  v[16] = 0x06, v[18] = 0x42, v[25] = 0x09, v[28] = 0x0A;
  v[26] = std::uint8_t(value >> 8), v[27] = std::uint8_t(value);
  v[29] = std::uint8_t(pbx_class >> 8), v[30] = std::uint8_t(pbx_class);
  return v;
}

inline NetworkInitData MakeInitData(std::uint8_t start_mode) {
  NetworkInitData data{};
  data.start_code = 0x07;
  std::memcpy(data.terminal_identity, "DESKLINE0001", 12);
  data.local_ip = 0xC0A80A05;  // 192.168.10.5
  std::memcpy(data.mac_address, "\x00\x1A\x2B\x3C\x4D\x5E", 6);
  data.pbx_ip = 0x7F000001;
  data.start_mode = start_mode;
  return data;
}

// Records items from any thread; a test may wait (in real time) for a count.
template <typename T>
class Recorder {
 public:
  void Add(T item) {
    std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    cv_.notify_all();
  }
  std::vector<T> Items() const {
    std::lock_guard lock(mutex_);
    return items_;
  }
  bool WaitForCount(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return items_.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<T> items_;
};

// Messages as "<type>:<payload>", so that a wrong type shows.
struct RecordingParent final : PtapParent, Recorder<std::string> {
  int OnPtapMessage(std::uint32_t type, const char* payload, std::size_t length) override {
    return Add(std::to_string(type) + ":" + std::string(payload, length)), 0;
  }
};

// Events; `on_event`, if set, runs first, so that a test can look at the client as CCp would.
struct RecordingObserver final : PtapObserver, Recorder<int> {
  int OnPtapEvent(const int* event) override {
    if (on_event) on_event();
    return Add(*event), 0;
  }
  std::function<void()> on_event;
};

}  // namespace deskline::testing
