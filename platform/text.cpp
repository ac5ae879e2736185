#include "platform/text.h"

namespace deskline {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Decodes one code point at `pos` and moves past it. An ill-formed sequence gives U+FFFD and
// moves past its maximal subpart only, so that a valid byte after it is not swallowed.
char32_t DecodeUtf8(std::string_view text, std::size_t& pos, bool& valid) {
  const auto lead = static_cast<unsigned char>(text[pos++]);
  valid = true;
  if (lead < 0x80) return lead;

  int trailing;
  char32_t code;
  unsigned char low = 0x80;  // the allowed range of the second byte
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trailing = 1;
    code = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trailing = 2;
    code = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trailing = 3;
    code = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    valid = false;
    return kReplacement;
  }

  for (int i = 0; i < trailing; ++i) {
    if (pos >= text.size()) {
      valid = false;
      return kReplacement;
    }
    const auto byte = static_cast<unsigned char>(text[pos]);
    const bool in_range = i == 0 ? (byte >= low && byte <= high) : IsContinuation(byte);
    if (!in_range) {
      valid = false;
      return kReplacement;
    }
    code = (code << 6) | (byte & 0x3F);
    ++pos;
  }
  return code;
}

// Decodes one code point of UTF-16 at `pos` and moves past it.
char32_t DecodeUtf16(std::u16string_view text, std::size_t& pos, bool& valid) {
  const char16_t unit = text[pos++];
  valid = true;
  if (unit < 0xD800 || unit > 0xDFFF) return unit;
  if (unit <= 0xDBFF && pos < text.size() && text[pos] >= 0xDC00 && text[pos] <= 0xDFFF) {
    const char16_t low = text[pos++];
    return 0x10000 + ((static_cast<char32_t>(unit) - 0xD800) << 10) + (low - 0xDC00);
  }
  valid = false;
  return kReplacement;
}

void AppendUtf8(std::string& out, char32_t code) {
  if (code < 0x80) {
    out.push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (code >> 6)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else if (code < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (code >> 12)));
    out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (code >> 18)));
    out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
  }
}

void AppendUtf16(std::u16string& out, char32_t code) {
  if (code < 0x10000) {
    out.push_back(static_cast<char16_t>(code));
  } else {
    code -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
  }
}

}  // namespace

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  bool valid;
  for (std::size_t pos = 0; pos < text.size();) AppendUtf8(out, DecodeUtf16(text, pos, valid));
  return out;
}

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  bool valid;
  for (std::size_t pos = 0; pos < text.size();) AppendUtf16(out, DecodeUtf8(text, pos, valid));
  return out;
}

bool IsValidUtf16(std::u16string_view text) {
  bool valid = true;
  for (std::size_t pos = 0; pos < text.size() && valid;) DecodeUtf16(text, pos, valid);
  return valid;
}

bool IsValidUtf8(std::string_view text) {
  bool valid = true;
  for (std::size_t pos = 0; pos < text.size() && valid;) DecodeUtf8(text, pos, valid);
  return valid;
}

std::size_t U16Length(const char16_t* s, std::size_t max) {
  if (!s) return 0;
  std::size_t n = 0;
  while (n < max && s[n] != u'\0') ++n;
  return n;
}

std::size_t U8Length(const char* s, std::size_t max) {
  if (!s) return 0;
  std::size_t n = 0;
  while (n < max && s[n] != '\0') ++n;
  return n;
}

std::u16string CutUtf16(std::u16string text, std::size_t max_units) {
  if (text.size() <= max_units) return text;
  std::size_t cut = max_units;
  // A high surrogate at the end would lose its partner.
  if (cut > 0 && text[cut - 1] >= 0xD800 && text[cut - 1] < 0xDC00) --cut;
  text.resize(cut);
  return text;
}

}  // namespace deskline
