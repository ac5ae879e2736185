#include "support/settings_store.h"

#include <cstring>
#include <string_view>

#include "platform/fs.h"
#include "platform/ini.h"
#include "platform/text.h"

namespace deskline {
namespace {

// How long a writer waits for another process's write before giving up.
constexpr int kLockTimeoutMs = 5000;

std::string ParentFolder(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

// A terminated argument as a view, or nullopt if it is null or runs past the length bound.
template <typename Char>
std::optional<std::basic_string_view<Char>> Argument(const Char* text) {
  if (!text) return std::nullopt;
  std::size_t length;
  if constexpr (sizeof(Char) == 1) {
    length = U8Length(text, kMaxSettingLength + 1);
  } else {
    length = U16Length(text, kMaxSettingLength + 1);
  }
  if (length > kMaxSettingLength) return std::nullopt;
  return std::basic_string_view<Char>(text, length);
}

std::optional<std::string> ReadValue(std::string_view key, std::string_view name) {
  const std::optional<std::string> path = SettingsFilePath();
  if (!path) return std::nullopt;
  const std::optional<std::string> text = platform::ReadWholeFile(*path);
  if (!text) return std::nullopt;
  platform::IniDocument document;
  if (!document.Load(*text)) return std::nullopt;
  return document.Get(key, name);
}

bool WriteValue(std::string_view key, std::string_view name, std::string_view value) {
  const std::optional<std::string> path = SettingsFilePath();
  if (!path) return false;
  const std::string folder = ParentFolder(*path);
  if (!folder.empty() && !platform::CreateDirectories(folder)) return false;

  const platform::FileLock lock(*path + ".lock", kLockTimeoutMs);
  if (!lock.locked()) return false;
  platform::IniDocument document;
  if (platform::PathExists(*path)) {
    // Whatever is there must be read and understood, or the rewrite would drop it.
    const std::optional<std::string> text = platform::ReadWholeFile(*path);
    if (!text || !document.Load(*text)) return false;
  }
  if (!document.Set(key, name, value)) return false;
  const std::optional<std::string> text = document.Serialize();
  return text && platform::WriteFileAtomically(*path, *text);
}

}  // namespace

std::optional<std::string> SettingsFilePath() {
  if (auto explicit_path = platform::GetEnvironment("DESKLINE_SETTINGS");
      explicit_path && !explicit_path->empty()) {
    return explicit_path;
  }
  std::string config;
  // A relative XDG_CONFIG_HOME is invalid and ignored, as the base directory rules say.
  if (auto xdg = platform::GetEnvironment("XDG_CONFIG_HOME"); xdg && !xdg->empty() &&
                                                              xdg->front() == '/') {
    config = *xdg;
  } else if (auto home = platform::HomeDirectory()) {
    config = *home + "/.config";
  } else {
    return std::nullopt;
  }
  return config + "/deskline/settings.ini";
}

bool ReadSettingW(const char16_t* key, const char16_t* name, void* value_out,
                  std::size_t capacity_bytes) {
  const auto key_text = Argument(key);
  const auto name_text = Argument(name);
  if (!key_text || !name_text || !value_out) return false;
  const std::optional<std::string> value =
      ReadValue(Utf16ToUtf8(*key_text), Utf16ToUtf8(*name_text));
  if (!value) return false;
  const std::u16string wide = Utf8ToUtf16(*value);
  const std::size_t bytes = (wide.size() + 1) * sizeof(char16_t);
  if (bytes > capacity_bytes) return false;
  // Byte copy: the caller's buffer need not be aligned for char16_t.
  std::memcpy(value_out, wide.c_str(), bytes);
  return true;
}

bool WriteSettingW(const char16_t* key, const char16_t* name, const char16_t* value) {
  const auto key_text = Argument(key);
  const auto name_text = Argument(name);
  const auto value_text = Argument(value);
  if (!key_text || !name_text || !value_text) return false;
  // A lone surrogate would come back as U+FFFD: refuse rather than store something else.
  if (!IsValidUtf16(*key_text) || !IsValidUtf16(*name_text) || !IsValidUtf16(*value_text)) {
    return false;
  }
  return WriteValue(Utf16ToUtf8(*key_text), Utf16ToUtf8(*name_text), Utf16ToUtf8(*value_text));
}

bool ReadSetting(const char* key, const char* name, void* value_out, std::size_t capacity_bytes) {
  const auto key_text = Argument(key);
  const auto name_text = Argument(name);
  if (!key_text || !name_text || !value_out) return false;
  const std::optional<std::string> value = ReadValue(*key_text, *name_text);
  if (!value) return false;
  const std::size_t bytes = value->size() + 1;
  if (bytes > capacity_bytes) return false;
  std::memcpy(value_out, value->c_str(), bytes);
  return true;
}

bool WriteSetting(const char* key, const char* name, const char* value) {
  const auto key_text = Argument(key);
  const auto name_text = Argument(name);
  const auto value_text = Argument(value);
  if (!key_text || !name_text || !value_text) return false;
  // The file is UTF-8 for both widths; other bytes would not read back through the wide side.
  if (!IsValidUtf8(*key_text) || !IsValidUtf8(*name_text) || !IsValidUtf8(*value_text)) {
    return false;
  }
  return WriteValue(*key_text, *name_text, *value_text);
}

}  // namespace deskline
