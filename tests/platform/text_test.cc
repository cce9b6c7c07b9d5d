#include <gtest/gtest.h>

#include "platform/text.h"

namespace {

TEST(Utf16Conversion, EncodesEveryUtf8LengthAndKeepsEmbeddedNulsAndEmptyText) {
  // 1-, 2-, 3-byte forms and a surrogate pair (U+1F600).
  const std::u16string units = u"A\u00e9\u20ac\U0001F600";
  EXPECT_EQ(platform::Utf16ToUtf8(units), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(platform::Utf8ToUtf16("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), units);
  EXPECT_EQ(platform::Utf16ToUtf8(std::u16string_view(u"a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(platform::Utf16ToUtf8(u""), "");
  EXPECT_EQ(platform::Utf8ToUtf16(""), u"");
}

TEST(Utf16Conversion, LoneSurrogatesAndMalformedUtf8AreReplacedNotDropped) {
  const char16_t high_alone[] = {u'x', 0xD83D, u'y'};
  EXPECT_EQ(platform::Utf16ToUtf8(std::u16string_view(high_alone, 3)), "x\xEF\xBF\xBDy");
  const char16_t low_first[] = {0xDE00, 0xD83D};
  EXPECT_EQ(platform::Utf16ToUtf8(std::u16string_view(low_first, 2)),
            "\xEF\xBF\xBD\xEF\xBF\xBD");
  const std::u16string out = platform::Utf8ToUtf16("a\xFF" "b\xE2\x82");
  ASSERT_GE(out.size(), 3u);
  EXPECT_EQ(out.front(), u'a');
  EXPECT_NE(out.find(u'b'), std::u16string::npos);
  EXPECT_NE(out.find(char16_t{0xFFFD}), std::u16string::npos);
}

}  // namespace
