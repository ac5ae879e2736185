// UTF-16 <-> UTF-8 at the host boundary: exact bytes at every encoding-length boundary, and
// one U+FFFD per maximal ill-formed subsequence.
#include "platform/text.h"

#include <gtest/gtest.h>

#include <memory>

namespace deskline {
namespace {

struct Pair {
  std::u16string utf16;
  std::string utf8;
};

TEST(TextTest, WellFormedTextRoundTripsAtEveryLengthBoundary) {
  const Pair rows[] = {
      {u"", ""}, {std::u16string(1, u'\0'), std::string(1, '\0')}, {u"\u007F", "\x7F"},
      {u"\u0080", "\xC2\x80"}, {u"\u07FF", "\xDF\xBF"}, {u"\u0800", "\xE0\xA0\x80"},
      {u"\uD7FF", "\xED\x9F\xBF"}, {u"\uE000", "\xEE\x80\x80"}, {u"\uFFFF", "\xEF\xBF\xBF"},
      {u"\U00010000", "\xF0\x90\x80\x80"}, {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
      {u"Kopfh\u00F6rer \U0001F3A7", "Kopfh\xC3\xB6rer \xF0\x9F\x8E\xA7"},
  };
  for (const Pair& p : rows) {
    SCOPED_TRACE(::testing::PrintToString(p.utf8));
    EXPECT_EQ(Utf16ToUtf8(p.utf16), p.utf8);
    EXPECT_EQ(Utf8ToUtf16(p.utf8), p.utf16);
    EXPECT_TRUE(IsValidUtf16(p.utf16) && IsValidUtf8(p.utf8));
  }
}

TEST(TextTest, IllFormedInputGivesOneReplacementPerMaximalSubpart) {
  const std::string r8 = "\xEF\xBF\xBD";
  const Pair unpaired[] = {
      {u"a\xD800", "a" + r8}, {u"\xDC00z", r8 + "z"},
      {u"\xD800\xD800\xDC00", r8 + "\xF0\x90\x80\x80"}, {u"\xDC00\xD800", r8 + r8},
  };
  for (const Pair& p : unpaired) {
    EXPECT_EQ(Utf16ToUtf8(p.utf16), p.utf8);
    EXPECT_FALSE(IsValidUtf16(p.utf16));
  }
  const std::u16string R(1, kReplacementCharacter);
  const Pair ill[] = {
      {R, "\x80"},                              // lone continuation
      {R + R, "\xC0\xAF"},                      // C0 never starts anything
      {R + R + R, "\xE0\x80\xAF"},              // overlong
      {R + R + R, "\xED\xA0\x80"},              // an encoded surrogate
      {R + R + R + R, "\xF4\x90\x80\x80"},      // above U+10FFFF
      {R + R + R + R, "\xF8\x88\x80\x80"},      // five-byte lead
      {R, "\xE2\x82"},                          // cut short at the end
      {R + u"A", "\xE2\x82" "A"},               // cut short; the letter survives
      {R + u"\u20AC", "\xF0\x9F\xE2\x82\xAC"},  // cut short before a whole character
  };
  for (const Pair& p : ill) {
    EXPECT_EQ(Utf8ToUtf16(p.utf8), p.utf16) << ::testing::PrintToString(p.utf8);
    EXPECT_FALSE(IsValidUtf8(p.utf8));
  }
}

TEST(TextTest, LengthsStopAtTheTerminatorOrTheBound) {
  EXPECT_EQ(U16Length(u"abc", 10), 3u);
  EXPECT_EQ(U16Length(nullptr, 10), 0u);
  EXPECT_EQ(U8Length(nullptr, 10), 0u);
  // Exactly `max` units and no terminator, on the heap: the sanitizer sees a read past them.
  auto wide = std::make_unique<char16_t[]>(4);
  std::fill_n(wide.get(), 4, u'x');
  EXPECT_EQ(U16Length(wide.get(), 4), 4u);
  auto narrow = std::make_unique<char[]>(4);
  std::fill_n(narrow.get(), 4, 'x');
  EXPECT_EQ(U8Length(narrow.get(), 4), 4u);
  EXPECT_EQ(U8Length(narrow.get(), 2), 2u);
}


TEST(TextTest, CutsNeverSplitASurrogatePair) {
  const std::u16string pair = u"\U0001F4DE";  // two units
  struct Row { std::u16string text; std::size_t max; std::u16string expected; };
  const Row rows[] = {
      {u"abc", 3, u"abc"},       {u"abcd", 3, u"abc"},     {u"ab" + pair, 3, u"ab"},
      {u"ab" + pair, 4, u"ab" + pair}, {u"a" + pair + u"b", 2, u"a"}, {pair, 1, u""},
      {u"", 0, u""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(CutUtf16(row.text, row.max), row.expected) << row.max;
  }
}

}  // namespace
}  // namespace deskline
