// What the PBX delivers: the terminal's own copy of the parameters (read by selector), the
// host's container, and the loader that fills the container from the START answer.
//
// Thread rules: the socket thread is the only writer; readers on any thread take the same
// leaf lock. The container pointer handed out by Container() is read without it, so callers
// that read while packets still arrive should copy with CopyContainer().
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>

#include "deskline/deskline.h"
#include "ptap/ptap_packet.h"

namespace deskline {

// The PTAP socket is not punched: its interval (element 0xA1) is kept but has no selector,
// and 0x40000 reads 0 like any selector the table lacks.
inline constexpr std::uint32_t PTAP_PARAM_PTAP_PUNCH_INTERVAL = 0x40000;

// The terminal's copy, all zero until delivered.
struct PtapParameters {
  std::uint32_t param_18 = 0;           // selector 0x2
  std::uint32_t param_19 = 0;           // 0x4
  std::uint32_t keepalive_timeout = 0;  // 0x8, seconds
  std::uint32_t param_1b = 0;           // 0x10
  std::uint32_t param_1c = 0;           // 0x20
  std::uint32_t param_1d = 0;           // 0x40
  std::uint32_t param_1e = 0;           // 0x80
  std::uint16_t param_0f = 0;           // 0x100
  std::uint16_t mgcp_pbx_port = 0;      // 0x200
  std::uint16_t mgcp_local_port = 0;    // 0x400
  std::uint16_t param_23 = 0;           // 0x800
  std::uint16_t param_24 = 0;           // 0x1000
  std::uint16_t param_25 = 0;           // 0x2000
  std::uint16_t param_26 = 0;           // 0x4000
  std::uint16_t extended_value = 0;     // 0x8000
  std::uint16_t pbx_class = 0;          // 0x10000
  std::uint8_t extended_ok = 0;         // 0x20000
  std::uint16_t ptap_punch_interval = 0;  // 0x40000, seconds
  std::uint16_t mgcp_punch_interval = 0;  // 0x80000, seconds
  std::uint16_t rtp_punch_interval = 0;   // 0x100000, seconds
  std::array<std::uint8_t, 5> value_5a{};
};

class PtapParameterStore {
 public:
  // Elements of a complete delivery; the loader stores no more than this many.
  static constexpr unsigned kDeliveryElements = 13;

  // Called with the keepalive timeout (0..255) whenever the loader stores element 0x1A.
  using KeepaliveSink = std::function<void(std::uint32_t seconds)>;

  // Zeroes the terminal's copy (the container is left alone).
  void ResetParameters();
  // Makes a zeroed container if there is none, clearing the counters. False if out of memory.
  bool EnsureContainer();
  // Frees the container and clears the counters.
  void FreeContainer();
  bool has_container() const;

  // The element handler's storing part for every tag but 0x20 and 0x22: values in the terminal's
  // copy (unsigned) and, for the thirteen delivery tags, in the container. A value shorter
  // than its tag needs is ignored. True if the element was of a tag that is stored.
  bool StoreElement(std::uint8_t tag, std::span<const std::uint8_t> value);
  // Extended response results.
  void SetExtendedOk();
  void SetExtendedValue(std::uint16_t value);
  void SetPbxClass(std::uint16_t pbx_class);

  // The parameter loader: zeroes the container and fills it from the packet's elements,
  // sign-extending bytes, until `parameter_count` reaches 13. Marks the delivery complete once
  // anything was stored. 1 (with the critical trace) if there is no container, else 0.
  int LoadParameters(const PtapPacket& packet, const KeepaliveSink& on_keepalive);

  // The value behind a selector, 0 for an unknown one. The punching intervals read 0 (and the
  // field is cleared, with an error trace) when outside 0..255.
  int GetParameter(std::uint32_t selector);
  PtapParameters Snapshot() const;

  // 1 if `out` is null or there is no container, else 0 and a copy taken under the lock.
  int CopyContainer(PtapParameterContainer* out) const;

  unsigned parameter_count() const;
  bool parameters_complete() const { return parameters_complete_.load(); }
  // Clears the flag; true if it was set. The connection timeout uses it to report once.
  bool TakeParametersComplete() { return parameters_complete_.exchange(false); }

 private:
  mutable std::mutex lock_;
  PtapParameters parameters_;
  std::unique_ptr<PtapParameterContainer> container_;
  unsigned parameter_count_ = 0;
  std::atomic<bool> parameters_complete_{false};
};

}  // namespace deskline
