#include "audio/built_in_sounds.h"

#include "audio/built_in_sound_data.h"

namespace deskline::audio {
namespace {

char16_t Fold(char16_t c) {
  if (c == u'\\') return u'/';
  if (c >= u'A' && c <= u'Z') return static_cast<char16_t>(c - u'A' + u'a');
  return c;
}

// Resource names are matched without regard to ASCII case, and either slash separates.
bool SamePath(std::u16string_view wanted, const char* name) {
  std::size_t i = 0;
  for (; i < wanted.size(); ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c == 0 || Fold(wanted[i]) != Fold(static_cast<char16_t>(c))) return false;
  }
  return name[i] == 0;
}

}  // namespace

std::span<const std::uint8_t> FindBuiltInSound(std::u16string_view path) {
  for (std::size_t i = 0; i < built_in::kSoundCount; ++i) {
    if (SamePath(path, built_in::kSoundPaths[i])) {
      const std::uint32_t begin = deskline_built_in_sound_offsets[i];
      const std::uint32_t end = deskline_built_in_sound_offsets[i + 1];
      return {deskline_built_in_sound_bytes + begin, end - begin};
    }
  }
  return {};
}

std::vector<std::string> BuiltInSoundNames() {
  return {built_in::kSoundPaths, built_in::kSoundPaths + built_in::kSoundCount};
}

}  // namespace deskline::audio
