#include "fake_audio.h"

#include <cstdio>
#include <mutex>

namespace deskline::testing {
namespace {

std::mutex g_lock;
std::vector<std::string> g_calls;

void Record(std::string line) {
  std::lock_guard lock(g_lock);
  g_calls.push_back(std::move(line));
}

std::int32_t PlayFile(const char16_t* path, std::int32_t loop_count) {
  Record("play_file(" + ToUtf8(path) + ", " + std::to_string(loop_count) + ")");
  return 0;
}

std::int32_t StopPlayFile() {
  Record("stop_play_file()");
  return 0;
}

void SetRingVolume(std::int32_t level, float gain) {
  char text[64];
  std::snprintf(text, sizeof(text), "set_ring_volume(%d, %g)", level, static_cast<double>(gain));
  Record(text);
}

std::int32_t PlayTone(const char16_t* path, std::int32_t loop_count) {
  Record("play_tone(" + ToUtf8(path) + ", " + std::to_string(loop_count) + ")");
  return 0;
}

std::int32_t StopPlayTone() {
  Record("stop_play_tone()");
  return 0;
}

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

ToneAudioInterface FakeAudio::Table() {
  return {&PlayFile, &StopPlayFile, &SetRingVolume, &PlayTone, &StopPlayTone};
}

void FakeAudio::Reset() {
  std::lock_guard lock(g_lock);
  g_calls.clear();
}

std::vector<std::string> FakeAudio::Take() {
  std::lock_guard lock(g_lock);
  std::vector<std::string> calls;
  calls.swap(g_calls);
  return calls;
}

std::string ToUtf8(const char16_t* text) {
  if (text == nullptr) return "(null)";
  std::string out;
  for (std::size_t i = 0; text[i] != u'\0'; ++i) {
    const char16_t unit = text[i];
    if (unit >= 0xD800 && unit < 0xDC00 && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      AppendUtf8(out, 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) +
                          (static_cast<char32_t>(text[i + 1]) - 0xDC00));
      ++i;
    } else if (unit >= 0xD800 && unit < 0xE000) {
      AppendUtf8(out, 0xFFFD);
    } else {
      AppendUtf8(out, unit);
    }
  }
  return out;
}

}  // namespace deskline::testing
