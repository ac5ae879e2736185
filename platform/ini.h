// Ini files: "[section]" headers and "key=value" lines, read and written with
// Boost.PropertyTree's ini parser. Section and key names are matched whole and exactly (case
// counts), so names may hold dots, backslashes and blanks inside. Lines starting with ';' or
// '#' are comments. Nothing here throws; a malformed file reads as empty.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace deskline::platform {

// An ini document in memory. Not thread-safe; callers serialise.
class IniDocument {
 public:
  IniDocument();
  ~IniDocument();
  IniDocument(IniDocument&&) noexcept;
  IniDocument& operator=(IniDocument&&) noexcept;

  // Replaces the content with the parse of `text` (a leading UTF-8 byte order mark is
  // skipped). False if `text` is not a well-formed ini file (a line without '=', an
  // unclosed '[', a repeated section or key); the document is then empty.
  bool Load(std::string_view text);

  // The value of `key` in `section`, or nullopt. Blanks around a value are not part of it;
  // a value written in double quotes is given without them.
  std::optional<std::string> Get(std::string_view section, std::string_view key) const;

  // Adds or replaces a value. A value with blanks at either end, or one that is itself in
  // double quotes, is stored quoted so that it reads back unchanged. False, with nothing
  // changed, when the result would not read back the same: an empty name, a line break or NUL
  // anywhere, blanks around a name, ']' in a section name, '=' in a key or a key starting
  // with ';', '#' or '[', or a section name that is already a key outside any section.
  bool Set(std::string_view section, std::string_view key, std::string_view value);

  // The document as ini text: keys outside sections first, then each section. Nullopt
  // only if the tree cannot be written as ini.
  std::optional<std::string> Serialize() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// An integer from an ini file. Nullopt when the file, the section or the key is missing, the
// file is malformed, or the value is not a decimal integer that fits an int (blanks around it
// and a leading sign are fine, anything else is not). Any thread.
std::optional<int> ReadIniInt(const std::string& path, const std::string& section,
                              const std::string& key);

}  // namespace deskline::platform
