// UTF-16 <-> UTF-8 at the host boundary: exact bytes at every encoding-length boundary, and
// one U+FFFD per maximal ill-formed subsequence.
#include "support/text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace deskline {
namespace {

struct Pair {
  std::u16string utf16;
  std::string utf8;
};

TEST(TextTest, BoundariesOfEveryEncodingLengthRoundTrip) {
  const Pair pairs[] = {
      {u"", ""},
      {u"System Default", "System Default"},
      {std::u16string(1, u'\0'), std::string(1, '\0')},
      {u"\u007F", "\x7F"},
      {u"\u0080", "\xC2\x80"},
      {u"\u07FF", "\xDF\xBF"},
      {u"\u0800", "\xE0\xA0\x80"},
      {u"\uD7FF", "\xED\x9F\xBF"},
      {u"\uE000", "\xEE\x80\x80"},
      {u"\uFFFD", "\xEF\xBF\xBD"},
      {u"\uFFFF", "\xEF\xBF\xBF"},
      {u"\U00010000", "\xF0\x90\x80\x80"},
      {u"\U0001F3A7", "\xF0\x9F\x8E\xA7"},
      {u"\U0010FFFF", "\xF4\x8F\xBF\xBF"},
      {u"Kopfh\u00F6rer \u266B \U0001F3A7", "Kopfh\xC3\xB6rer \xE2\x99\xAB \xF0\x9F\x8E\xA7"},
  };
  for (const Pair& p : pairs) {
    EXPECT_EQ(Utf16ToUtf8(p.utf16), p.utf8);
    EXPECT_EQ(Utf8ToUtf16(p.utf8), p.utf16);
    EXPECT_TRUE(IsValidUtf16(p.utf16));
    EXPECT_TRUE(IsValidUtf8(p.utf8));
  }
}

TEST(TextTest, UnpairedSurrogatesBecomeReplacementsAndKeepTheirNeighbours) {
  const Pair cases[] = {
      {u"a\xD800", "a\xEF\xBF\xBD"},                          // high at the end
      {u"\xDC00z", "\xEF\xBF\xBDz"},                          // low alone
      {u"\xD800z", "\xEF\xBF\xBDz"},                          // high before a letter
      {u"\xD800\xD800\xDC00", "\xEF\xBF\xBD\xF0\x90\x80\x80"},  // the second high pairs
      {u"\xDC00\xD800", "\xEF\xBF\xBD\xEF\xBF\xBD"},          // reversed pair
  };
  for (const Pair& c : cases) {
    EXPECT_EQ(Utf16ToUtf8(c.utf16), c.utf8);
    EXPECT_FALSE(IsValidUtf16(c.utf16));
  }
}

TEST(TextTest, IllFormedUtf8GivesOneReplacementPerMaximalSubpart) {
  const std::u16string R(1, kReplacementCharacter);
  const Pair cases[] = {
      {R, "\x80"},                             // lone continuation
      {R + R, "\xC0\xAF"},                     // overlong '/': C0 never starts anything
      {R + R + R, "\xE0\x80\xAF"},             // overlong three-byte form
      {R + R + R, "\xED\xA0\x80"},             // an encoded surrogate
      {R + R + R + R, "\xF4\x90\x80\x80"},     // above U+10FFFF
      {R + R + R + R, "\xF8\x88\x80\x80"},     // five-byte lead
      {R, "\xF5"},
      {R, "\xE2\x82"},                         // cut short at the end
      {R + u"A", "\xE2\x82" "A"},              // cut short before a letter, which survives
      {R + u"\u20AC", "\xF0\x9F\xE2\x82\xAC"}, // cut short before a whole character
      {u"a" + R + u"b", "a\xFF" "b"},
  };
  for (const Pair& c : cases) {
    EXPECT_EQ(Utf8ToUtf16(c.utf8), c.utf16) << ::testing::PrintToString(c.utf8);
    EXPECT_FALSE(IsValidUtf8(c.utf8));
  }
}

TEST(TextTest, LengthsStopAtTheTerminatorOrTheBound) {
  EXPECT_EQ(U16Length(u"abc", 10), 3u);
  EXPECT_EQ(U16Length(u"", 10), 0u);
  EXPECT_EQ(U16Length(nullptr, 10), 0u);
  EXPECT_EQ(U8Length("abc", 10), 3u);
  EXPECT_EQ(U8Length(nullptr, 10), 0u);
  // Exactly `max` units with no terminator, on the heap so that the sanitizer sees a read
  // one past the end.
  auto wide = std::make_unique<char16_t[]>(4);
  std::fill_n(wide.get(), 4, u'x');
  EXPECT_EQ(U16Length(wide.get(), 4), 4u);
  EXPECT_EQ(U16Length(wide.get(), 2), 2u);
  auto narrow = std::make_unique<char[]>(4);
  std::fill_n(narrow.get(), 4, 'x');
  EXPECT_EQ(U8Length(narrow.get(), 4), 4u);
  EXPECT_EQ(U8Length(narrow.get(), 0), 0u);
}

}  // namespace
}  // namespace deskline
