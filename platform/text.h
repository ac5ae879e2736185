// Text conversion between the host's UTF-16 and the UTF-8 of files and the file system.
// Pure functions, any thread. Ill-formed input is never an error here: an unpaired surrogate
// or a byte that does not belong becomes U+FFFD, one per maximal ill-formed subsequence.
// Callers that must not lose anything check with IsValidUtf16/IsValidUtf8 first.
// It lives in the platform layer, below everything, because the platform's own code (sound
// device names, for one) converts text too; nothing here touches the operating system.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace deskline {

inline constexpr char16_t kReplacementCharacter = u'\uFFFD';

std::string Utf16ToUtf8(std::u16string_view text);
std::u16string Utf8ToUtf16(std::string_view text);

// True if the text converts without a replacement (surrogates paired; UTF-8 shortest form,
// no surrogate code points, nothing above U+10FFFF).
bool IsValidUtf16(std::u16string_view text);
bool IsValidUtf8(std::string_view text);

// The length of a terminated string, counting at most `max` units: `max` when no terminator
// comes within them, 0 for a null pointer. Never reads past `max` units.
std::size_t U16Length(const char16_t* s, std::size_t max);
std::size_t U8Length(const char* s, std::size_t max);

// The text cut to at most `max_units`, never between the two halves of a surrogate pair.
std::u16string CutUtf16(std::u16string text, std::size_t max_units);

}  // namespace deskline
