// The settings store's reader and writer in memory: the ini document that every read and
// write of the store parses and rewrites, and the UTF-8 / UTF-16 conversions of its wide form.
//
// Input: [section] NUL [key] NUL [value] NUL [ini text]. The text is loaded; a document that
// loads must write itself out as text that loads again to the same text. Then the value is
// set: a Set that says yes must read back by Get unchanged, and survive a write and a load.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "platform/ini.h"
#include "platform/text.h"

namespace {

using deskline::platform::IniDocument;

void Require(bool condition) {
  if (!condition) std::abort();
}

// Takes the bytes up to the next NUL (or all that remain) off the front of `input`.
std::string_view Field(std::string_view& input) {
  const std::size_t end = input.find('\0');
  const std::string_view field = input.substr(0, end);
  input.remove_prefix(end == std::string_view::npos ? input.size() : end + 1);
  return field;
}

void CheckRoundTrip(const IniDocument& document) {
  const std::optional<std::string> text = document.Serialize();
  if (!text) return;
  IniDocument again;
  Require(again.Load(*text));
  const std::optional<std::string> text_again = again.Serialize();
  Require(text_again && *text_again == *text);
}

}  // namespace

// A few kilobytes hold every construct of an ini file; longer texts only slow the search.
constexpr std::size_t kMaxInput = 4096;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > kMaxInput) return 0;
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view section = Field(input);
  const std::string_view key = Field(input);
  const std::string_view value = Field(input);

  IniDocument document;
  if (document.Load(input)) CheckRoundTrip(document);

  if (document.Set(section, key, value)) {
    const std::optional<std::string> read = document.Get(section, key);
    Require(read && *read == value);
    const std::optional<std::string> text = document.Serialize();
    Require(text.has_value());
    IniDocument reloaded;
    Require(reloaded.Load(*text));
    const std::optional<std::string> read_again = reloaded.Get(section, key);
    Require(read_again && *read_again == value);
  }

  // The wide store converts names and values both ways; well-formed UTF-8 survives the trip.
  if (deskline::IsValidUtf8(value)) {
    const std::u16string wide = deskline::Utf8ToUtf16(value);
    Require(deskline::IsValidUtf16(wide));
    Require(deskline::Utf16ToUtf8(wide) == value);
  }
  return 0;
}
