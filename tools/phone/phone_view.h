// What the phone knows from the engine's callbacks: the call's progress, the lamps and the
// display. Each On... operation updates the state and returns the line to show.
//
// Thread rules: the On... operations run on the engine's callback threads, everything else on
// the phone's own threads; one mutex guards the state.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/phone/records.h"

namespace deskline::phone {

struct CallCounts {
  int rings = 0;
  int media_opened = 0;  // the voice path opened (codec announced)
  int ends = 0;
};

class PhoneView {
 public:
  std::string OnEvent(std::uint32_t code, std::span<const std::byte> data);
  std::string OnLamp(std::uint32_t key, std::uint32_t status);
  std::string OnDisplay(std::span<const std::byte> bytes);
  std::string OnSystem(std::uint32_t code);

  CallCounts counts() const;
  std::string codec() const;
  // True while the voice path is open: from the codec announcement to media closed.
  const std::atomic<bool>& media_active() const { return media_active_; }
  bool connection_lost() const { return connection_lost_.load(); }
  bool restart_demanded() const { return restart_demanded_.load(); }
  // The line key to press to take back a held call: the line whose lamp went from steady
  // green to flashing most recently and still flashes; else the line last steady green;
  // else line key 0.
  std::uint32_t ResumeKey() const;
  std::vector<std::string> Screen() const;

 private:
  mutable std::mutex mutex_;
  CallCounts counts_;
  std::string codec_;
  std::map<std::uint32_t, std::uint32_t> lamps_;  // key code -> status
  std::optional<std::uint32_t> held_key_;
  std::optional<std::uint32_t> active_key_;
  DisplayModel display_;
  std::atomic<bool> media_active_{false};
  bool ended_since_open_ = false;  // an ending has been counted since the voice path opened
  std::atomic<bool> connection_lost_{false};
  std::atomic<bool> restart_demanded_{false};
};

}  // namespace deskline::phone
