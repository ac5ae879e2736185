// The settings store: a persistent map from a key path and a value name to a string, kept in
// an ini file where the key path is the section and values are UTF-8. The file is
// $DESKLINE_SETTINGS when that is set and not empty, else
// ${XDG_CONFIG_HOME:-$HOME/.config}/deskline/settings.ini (read again at every call, so a
// test points the store at a file of its own by setting the variable).
//
// Every write is a read-modify-write under an advisory lock on "<file>.lock" and replaces the
// file atomically, so concurrent writers, in this process or others, never lose a value and a
// reader never sees half a file. A file that does not parse is never overwritten: writes to
// it fail. The operations report by their result alone; they never trace.
//
// Any thread; the Audio module calls them on its start path and on device changes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace deskline {

// The key and values that the engine and the host share.
inline constexpr char kSettingsKey[] = "Software\\Halvoreen\\Deskline\\Settings";
inline constexpr char16_t kSettingsKeyW[] = u"Software\\Halvoreen\\Deskline\\Settings";
inline constexpr char16_t kInputDeviceValue[] = u"Input Device";
inline constexpr char16_t kOutputDeviceValue[] = u"Output Device";
inline constexpr char16_t kPlayFileDeviceValue[] = u"PlayFile Device";
inline constexpr char16_t kSystemDefaultDevice[] = u"System Default";

// Longer keys, names and values (in code units, without terminator) are refused; the bound
// also keeps a read of an unterminated argument inside its storage.
inline constexpr std::size_t kMaxSettingLength = 32767;

// Reads a value as UTF-16 with its terminator into `value_out`. False, with `value_out`
// untouched, if an argument is null, the value is missing, or it does not fit in
// `capacity_bytes` with its terminator.
bool ReadSettingW(const char16_t* key, const char16_t* name, void* value_out,
                  std::size_t capacity_bytes);
// Creates or replaces a value (and the file and its folders when needed). False if an
// argument is null or ill-formed UTF-16, the value holds a line break, a name cannot be
// stored (see IniDocument::Set), or the file cannot be locked, read back or written.
bool WriteSettingW(const char16_t* key, const char16_t* name, const char16_t* value);

// The same with UTF-8 text: the read gives the stored bytes and a NUL terminator.
bool ReadSetting(const char* key, const char* name, void* value_out, std::size_t capacity_bytes);
bool WriteSetting(const char* key, const char* name, const char* value);

// The file the store uses now, or nullopt when no home folder can be found.
std::optional<std::string> SettingsFilePath();

}  // namespace deskline
