#include "api/key_tables.h"

#include <array>
#include <cstdio>
#include <map>

namespace deskline::api {
namespace {

struct KeyRange {
  std::uint32_t first;
  std::uint32_t last;
};

// Keys whose wire text is the code as four lower-case hexadecimal digits: 86 of them.
constexpr KeyRange kHexKeys[] = {
    {0x0100, 0x0100}, {0x0200, 0x0200}, {0x0300, 0x0301}, {0x0730, 0x0739},
    {0x072a, 0x072a}, {0x0723, 0x0723}, {0x0a00, 0x0a06}, {0x0b00, 0x0b01},
    {0x0b03, 0x0b0a}, {0x0c00, 0x0c2f}, {0x0d00, 0x0d03}, {0x0e00, 0x0e00},
};
constexpr std::size_t kHexKeyCount = 86;

struct NamedKey {
  std::uint32_t code;
  const char* text;
};
constexpr NamedKey kNamedKeys[] = {
    {0x1000, "line(0000)"}, {0x1001, "line(0001)"}, {0x1002, "line(0002)"},
    {0x1003, "line(0003)"}, {0x1004, "line(0004)"}, {0x1100, "spkout"},
};

// Constructed on first use: the attach hook may run before this file's global constructors.
std::array<std::array<char, 5>, kHexKeyCount>& HexTexts() {
  static std::array<std::array<char, 5>, kHexKeyCount> texts{};
  return texts;
}
std::map<std::uint32_t, const char*>& KeyCodes() {
  static std::map<std::uint32_t, const char*> map;
  return map;
}
std::map<char, std::uint32_t>& DialChars() {
  static std::map<char, std::uint32_t> map;
  return map;
}

}  // namespace

void FillKeyTables() {
  auto& g_hex_texts = HexTexts();
  auto& g_key_codes = KeyCodes();
  auto& g_dial_chars = DialChars();
  g_key_codes.clear();
  std::size_t next = 0;
  for (const KeyRange& range : kHexKeys) {
    for (std::uint32_t code = range.first; code <= range.last; ++code) {
      std::array<char, 5>& text = g_hex_texts[next++];
      std::snprintf(text.data(), text.size(), "%04x", code);
      g_key_codes.emplace(code, text.data());
    }
  }
  for (const NamedKey& key : kNamedKeys) g_key_codes.emplace(key.code, key.text);

  g_dial_chars.clear();
  for (char digit = '0'; digit <= '9'; ++digit) {
    g_dial_chars.emplace(digit, 0x0730u + static_cast<std::uint32_t>(digit - '0'));
  }
  g_dial_chars.emplace('*', 0x072a);
  g_dial_chars.emplace('#', 0x0723);
  g_dial_chars.emplace('P', kPauseKey);
  g_dial_chars.emplace('W', kPauseKey);
}

const char* LookupKeyText(std::uint32_t key) {
  const auto it = KeyCodes().find(key);
  return it == KeyCodes().end() ? nullptr : it->second;
}

std::optional<std::uint32_t> LookupDialChar(char c) {
  const auto it = DialChars().find(c);
  if (it == DialChars().end()) return std::nullopt;
  return it->second;
}

std::size_t KeyCodeCount() { return KeyCodes().size(); }
std::size_t DialCharCount() { return DialChars().size(); }

// Library attach: the maps are ready before any export can be called.
__attribute__((constructor)) static void OnLibraryAttach() { FillKeyTables(); }

}  // namespace deskline::api
