#include "tools/phone/phone_view.h"

#include <cstdio>

#include "tools/phone/commands.h"

namespace deskline::phone {

std::string PhoneView::OnEvent(std::uint32_t code, std::span<const std::byte> data) {
  std::lock_guard lock(mutex_);
  switch (code) {
    case kEventRing:
      ++counts_.rings;
      break;
    case kEventCodec: {
      codec_.clear();
      for (std::byte b : data) codec_.push_back(static_cast<char>(b));
      ++counts_.media_opened;
      media_active_ = true;
      ended_since_open_ = false;
      break;
    }
    // A PBX may end a call with an end event, or only by closing its voice path; one ending
    // counts once, whichever comes first.
    case kEventMediaClosed:
      media_active_ = false;
      [[fallthrough]];
    case kEventEnd:
      if (!ended_since_open_) ++counts_.ends;
      ended_since_open_ = true;
      break;
    default:
      break;
  }
  return "event  " + DescribeEvent(code, data);
}

std::string PhoneView::OnLamp(std::uint32_t key, std::uint32_t status) {
  std::lock_guard lock(mutex_);
  const std::uint32_t old = lamps_.count(key) ? lamps_[key] : 0;
  lamps_[key] = status;
  if (LineKeyIndex(key) >= 0) {
    if (status == 1) active_key_ = key;
    // Steady green to flashing is how the PBX shows a call put on hold.
    if (old == 1 && LampIsGreenFlashing(status)) held_key_ = key;
    if (held_key_ == key && !LampIsGreenFlashing(status)) held_key_.reset();
  }
  char line[96];
  const int line_key = LineKeyIndex(key);
  if (line_key >= 0) {
    std::snprintf(line, sizeof(line), "lamp   0x%04x (line %d) %s", key, line_key,
                  LampStateName(status));
  } else {
    std::snprintf(line, sizeof(line), "lamp   0x%04x %s", key, LampStateName(status));
  }
  return line;
}

std::string PhoneView::OnDisplay(std::span<const std::byte> bytes) {
  const DisplayRecord record = DecodeDisplay(bytes);
  std::lock_guard lock(mutex_);
  display_.Apply(record);
  return DescribeDisplay(record);
}

std::string PhoneView::OnSystem(std::uint32_t code) {
  if (code == kSystemConnectionLost) {
    connection_lost_ = true;
    return "system the PBX fell silent: connection lost";
  }
  if (code == kSystemRestartDemanded) {
    restart_demanded_ = true;
    return "system the PBX demands a restart";
  }
  return "system code " + std::to_string(static_cast<std::int32_t>(code)) + " from the PBX";
}

CallCounts PhoneView::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

std::string PhoneView::codec() const {
  std::lock_guard lock(mutex_);
  return codec_;
}

std::uint32_t PhoneView::ResumeKey() const {
  std::lock_guard lock(mutex_);
  if (held_key_) return *held_key_;
  if (active_key_) return *active_key_;
  return kKeyLine0;
}

std::vector<std::string> PhoneView::Screen() const {
  std::lock_guard lock(mutex_);
  return display_.Render();
}

}  // namespace deskline::phone
