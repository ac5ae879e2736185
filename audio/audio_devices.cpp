// Device lists, the choice of devices by name through the settings store, and the volumes.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "audio/audio.h"
#include "support/settings_store.h"

namespace deskline {

using platform::kWaveMapper;

namespace {

void WriteDefault(const char16_t* value) {
  WriteSettingW(kSettingsKeyW, value, kSystemDefaultDevice);
}

// The wave id of `name` in a list with the default first, or -1.
int FindDevice(const std::vector<std::u16string>& list, const std::u16string& name) {
  for (std::size_t i = 1; i < list.size(); ++i) {
    if (list[i] == name) return static_cast<int>(i) - 1;
  }
  return kWaveMapper;
}

}  // namespace

// A value too long for a device name is still read whole, so that it is never mistaken for a
// missing one and overwritten with the default.
bool CAudio::ReadDeviceSetting(const char16_t* value, std::u16string* name) {
  std::vector<char16_t> buffer(kMaxSettingLength + 1, u'\0');
  if (!ReadSettingW(kSettingsKeyW, value, buffer.data(), buffer.size() * sizeof(char16_t))) {
    return false;
  }
  name->assign(buffer.data());
  return true;
}

std::vector<std::u16string> CAudio::WithDefault(std::vector<std::u16string> devices) {
  std::vector<std::u16string> list;
  list.reserve(devices.size() + 1);
  list.emplace_back(kSystemDefaultDevice);
  for (auto& device : devices) {
    if (device.size() > platform::kMaxWaveDeviceName) device.resize(platform::kMaxWaveDeviceName);
    list.push_back(std::move(device));
  }
  return list;
}

void CAudio::ReadDeviceNames() {
  std::u16string names[3];
  const char16_t* values[3] = {kInputDeviceValue, kOutputDeviceValue, kPlayFileDeviceValue};
  for (int i = 0; i < 3; ++i) {
    if (!ReadDeviceSetting(values[i], &names[i])) {
      WriteDefault(values[i]);
      names[i] = kSystemDefaultDevice;
    }
  }
  std::lock_guard guard(lock);
  in_names = WithDefault(waves_.InputDevices());
  input_id.store(in_names.size() > 1 ? FindDevice(in_names, names[0]) : kWaveMapper);
  out_names = WithDefault(waves_.OutputDevices());
  const int output = out_names.size() > 1 ? FindDevice(out_names, names[1]) : kWaveMapper;
  output_id.store(output);
  tone.device_id.store(output);
  file.device_id.store(out_names.size() > 1 ? FindDevice(out_names, names[2]) : kWaveMapper);
}

// The registry's name overrules an id other than the default, so that a change of device
// numbers does not move the user to another device.
void CAudio::ResolveBeforeOpen(std::atomic<int>& id, const char16_t* value,
                               const std::vector<std::u16string>& list) {
  const int current = id.load();
  if (current == kWaveMapper || current >= static_cast<int>(list.size())) return;
  std::u16string name;
  if (!ReadDeviceSetting(value, &name)) {
    WriteDefault(value);
    id.store(kWaveMapper);
    return;
  }
  id.store(FindDevice(list, name));
}

int CAudio::ListForHost(const std::vector<std::u16string>& list, char16_t*** list_out) {
  if (list_out == nullptr) return -1;
  auto** array = static_cast<char16_t**>(std::calloc(list.size(), sizeof(char16_t*)));
  if (array == nullptr) return -1;
  for (std::size_t i = 0; i < list.size(); ++i) {
    array[i] = static_cast<char16_t*>(std::calloc(1, kDeviceNameBytes));
    if (array[i] == nullptr) {
      for (std::size_t j = 0; j < i; ++j) std::free(array[j]);
      std::free(array);
      return -1;
    }
    const std::size_t units = std::min(list[i].size(), kDeviceNameBytes / 2 - 1);
    std::memcpy(array[i], list[i].data(), units * sizeof(char16_t));
  }
  *list_out = array;
  return static_cast<int>(list.size());
}

int CAudio::GetInDevice(char16_t*** list_out) {
  if (list_out == nullptr) return -1;
  return ListForHost(WithDefault(waves_.InputDevices()), list_out);
}

int CAudio::GetOutDevice(char16_t*** list_out) {
  if (list_out == nullptr) return -1;
  return ListForHost(WithDefault(waves_.OutputDevices()), list_out);
}

int CAudio::SetDevice(std::int32_t output, std::int32_t file_index, std::int32_t input) {
  if (RefusedInCallback("SetDevice")) return 0;
  std::lock_guard one_change_at_a_time(device_lock);
  int result = 0;
  if (output >= 0 && output != output_id.load() + 1) {
    std::lock_guard voice_guard(voice_lock);
    std::lock_guard guard(lock);
    output_id.store(output - 1);
    tone.device_id.store(output - 1);  // the tone path follows "Output Device"
    ReleaseVoiceHeaders();
    CloseVoice();
    OpenWaveOut(16, 8000, 1, kFrameMs);  // a failure shows at the next write
    if (tone.device_opened) {
      StopPlayback(tone);
      ReleasePlayHeader(tone);
      ClosePlay(tone);
      OpenPlayDevice(tone);
    }
  }
  if (file_index >= 0 && file_index != file.device_id.load() + 1) {
    std::lock_guard guard(lock);
    file.device_id.store(file_index - 1);
    if (file.device_opened) {
      StopPlayback(file);
      ReleasePlayHeader(file);
      ClosePlay(file);
      OpenPlayDevice(file);
    }
  }
  if (input >= 0 && input != input_id.load() + 1) {
    // The recording thread is the input's only user while it runs: it goes first.
    StopRecordingThread();
    {
      std::lock_guard guard(lock);
      input_id.store(input - 1);
      ReleaseInHeaders();
      CloseIn();
      OpenWaveIn(16, 8000, 1, kFrameMs);
    }
    if (StartRecordingThread() != 0) result = 1;
  }
  return result;
}

void CAudio::GetDeviceID(std::uint32_t* output, std::uint32_t* file_out,
                         std::uint32_t* input) const {
  if (output != nullptr) *output = static_cast<std::uint32_t>(output_id.load() + 1);
  if (file_out != nullptr) *file_out = static_cast<std::uint32_t>(file.device_id.load() + 1);
  if (input != nullptr) *input = static_cast<std::uint32_t>(input_id.load() + 1);
}

void CAudio::SetVolume(Volume& volume, std::int32_t level, float slope, float default_slope) {
  if (level >= 0) volume.level.store(level);
  if (!std::isfinite(slope)) return;
  if (slope > 0.0f) {
    volume.slope.store(slope);
  } else if (slope == 0.0f) {
    volume.slope.store(default_slope);
  }
}

void CAudio::SetSpeakerVolume(std::int32_t level, float slope) {
  SetVolume(speaker, level, slope, kSpeakerSlope);
}
void CAudio::SetRingVolume(std::int32_t level, float slope) {
  SetVolume(ring, level, slope, kRingSlope);
}
void CAudio::SetMicVolume(std::int32_t level, float slope) {
  SetVolume(mic, level, slope, kMicSlope);
}

}  // namespace deskline
