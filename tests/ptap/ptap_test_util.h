// Helpers of the PTAP tests: hex bytes, a PBX-side datagram builder, and fakes for the parent,
// the observers and the transmit path.
#pragma once

#include <atomic>
#include <chrono>
#include <cctype>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "core/ports.h"
#include "deskline/deskline.h"

namespace deskline::testing {

using Bytes = std::vector<std::uint8_t>;

// "50 54 41 50" -> bytes; anything but hex digits is ignored, so literals may be split anywhere.
inline Bytes Hex(const std::string& text) {
  Bytes out;
  std::string digits;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
  }
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// A datagram as the PBX would send it. Raw writes a length as given, so a test can lie.
class PbxDatagram {
 public:
  PbxDatagram(std::uint8_t type, std::uint32_t tid)
      : bytes_{'P', 'T', 'A', 'P', std::uint8_t(tid >> 24), std::uint8_t(tid >> 16),
               std::uint8_t(tid >> 8), std::uint8_t(tid), type} {}
  PbxDatagram& Raw(std::uint8_t tag, std::uint16_t length, const Bytes& value) {
    bytes_.insert(bytes_.end(), {tag, std::uint8_t(length >> 8), std::uint8_t(length)});
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
  }
  PbxDatagram& Element(std::uint8_t tag, const Bytes& value) {
    return Raw(tag, static_cast<std::uint16_t>(value.size()), value);
  }
  PbxDatagram& Byte(std::uint8_t tag, std::uint8_t value) { return Element(tag, {value}); }
  PbxDatagram& End() {
    bytes_.push_back(0xFF);
    return *this;
  }
  const Bytes& bytes() const { return bytes_; }
  const std::uint8_t* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }

 private:
  Bytes bytes_;
};

// 32 bytes of an extended response that passes, with the two announced values.
inline Bytes ExtendedResponse(std::uint16_t value, std::uint16_t pbx_class) {
  Bytes v(32, 0x00);
  v[16] = 0x06;
  v[18] = 0x42;
  v[25] = 0x09;
  v[26] = std::uint8_t(value >> 8);
  v[27] = std::uint8_t(value);
  v[28] = 0x0A;
  v[29] = std::uint8_t(pbx_class >> 8);
  v[30] = std::uint8_t(pbx_class);
  return v;
}

inline NetworkInitData MakeInitData(std::uint8_t start_mode = 0) {
  NetworkInitData data{};
  data.start_code = 0x07;
  std::memcpy(data.terminal_identity, "DESKLINE0001", 12);
  data.local_ip = 0xC0A80A05;  // 192.168.10.5
  const std::uint8_t mac[6] = {0x00, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
  std::memcpy(data.mac_address, mac, 6);
  data.pbx_ip = 0x7F000001;
  data.start_mode = start_mode;
  return data;
}

// Records items from any thread; tests read copies and may wait (in real time) for a count.
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

// What the terminal sent through the transmit seam.
class SentLog : public Recorder<Bytes> {
 public:
  bool Record(std::span<const std::uint8_t> datagram) {
    Add(Bytes(datagram.begin(), datagram.end()));
    return succeed_;
  }
  std::vector<Bytes> Sent() const { return Items(); }
  std::size_t size() const { return Items().size(); }
  void set_succeed(bool succeed) { succeed_ = succeed; }

 private:
  std::atomic<bool> succeed_{true};
};

class RecordingParent final : public PtapParent, public Recorder<std::string> {
 public:
  int OnPtapMessage(std::uint32_t type, const char* payload, std::size_t length) override {
    if (type != 21) ++wrong_types_;
    Add(std::string(payload, length));
    return 0;
  }
  std::vector<std::string> Messages() const { return Items(); }
  int wrong_types() const { return wrong_types_; }

 private:
  std::atomic<int> wrong_types_{0};
};

class RecordingObserver final : public PtapObserver, public Recorder<int> {
 public:
  int OnPtapEvent(const int* event) override {
    Add(*event);
    return 0;
  }
  std::vector<int> Events() const { return Items(); }
};

// A fresh folder under the system's temporary folder, removed with everything in it.
class PtapTempDir {
 public:
  PtapTempDir() {
    std::random_device random;
    path_ = std::filesystem::temp_directory_path() /
            ("deskline-ptap-" + std::to_string(random()) + "-" + std::to_string(random()));
    std::filesystem::create_directories(path_);
  }
  ~PtapTempDir() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  PtapTempDir(const PtapTempDir&) = delete;
  PtapTempDir& operator=(const PtapTempDir&) = delete;

  std::string path() const { return path_.string(); }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string file = (path_ / name).string();
    std::ofstream(file, std::ios::binary) << text;
    return file;
  }

 private:
  std::filesystem::path path_;
};

}  // namespace deskline::testing
