#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kvc/debug_switches.h"
#include "kvc/string_time.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;

platform::LocalTime November13() { return {2026, 11, 13, 7, 10, 5, 999}; }

TEST(FormatTime, EveryFormOfOneMomentAndYearsBelow1900AreOffsets) {
  char buffer[64];
  platform::LocalTime t = November13();
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 1), "2026/11/13 07:10:05");
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 3), "1261113071005");
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 4), "1261113071005000");
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 0), "20261113071005");
  EXPECT_GT(strlen(kvc::FormatTime(t, buffer, 2)), 0u);
  EXPECT_LE(strlen(buffer), 48u);
  t.year = 26;
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 4), "1261113071005000");
  t.year = 95;
  EXPECT_STREQ(kvc::FormatTime(t, buffer, 1), "1995/11/13 07:10:05");
}

TEST(FormatNow, StaticBufferHoldsTheCurrentStamp) {
  const char* now = kvc::FormatNow(nullptr, 4);
  ASSERT_EQ(strlen(now), 16u);
  EXPECT_EQ(std::string(now + 13), "000");
  EXPECT_EQ(now[0], '1');  // this century
}

struct StampCase {
  const char* text;
  int length;
  int rc;
  const char* stamp;
};

TEST(ToTimeStamp, ConvertsEachLayoutOrNamesTheError) {
  const StampCase cases[] = {
      {" '0000000000000002' ", 0, 0, "0000000000000002"}, {"\"0000000000000000\"\r\n", 0, 0, "0000000000000000"},
      {"2026-11-13 07:10:05", 0, 0, "1261113071005000"}, {"2026/11/13 07.10.05.123", 0, 0, "1261113071005000"},
      {"2026/11/13", 0, 0, "1261113000000000"}, {"26/11/13 7:1:5", 0, 0, "1261113070105000"},
      {"99-12-31 23:59:59", 0, 0, "0991231235959000"}, {"20261113071005", 0, 0, "1261113071005000"},
      {"1240229000000000", 0, 0, "1240229000000000"}, {"2026-11-13 07:10:05trailing", 19, 0, "1261113071005000"},
      {"hello", 0, 519, "DateFmtErr=519"}, {"", 0, 519, "DateFmtErr=519"}, {"2026-11", 0, 519, "DateFmtErr=519"},
      {"2026-13-01", 0, 520, "DateFmtErr=520"}, {"2026-02-29", 0, 521, "DateFmtErr=521"},
      {"2026-11-13 24:00:00", 0, 522, "DateFmtErr=522"}, {"2026-11-13 23:60:00", 0, 523, "DateFmtErr=523"},
      {"2026-11-13 23:00:60", 0, 524, "DateFmtErr=524"}, {"2026--11-13", 0, 525, "DateFmtErr=525"},
      {"2026-11-13 ", 0, 0, "1261113000000000"}, {"0000000000000004", 0, 520, "DateFmtErr=520"},
      // Years the stamp's three digits cannot hold.
      {"202612p2h6$12", 0, 519, "DateFmtErr=519"}, {"1000-01-01", 0, 519, "DateFmtErr=519"},
      {"2900-01-01", 0, 519, "DateFmtErr=519"}, {"2899-12-31 23:59:59", 0, 0, "9991231235959000"}};
  for (const StampCase& c : cases) {
    char result[17];
    EXPECT_EQ(kvc::ToTimeStamp(c.text, c.length, result), c.rc) << c.text;
    EXPECT_STREQ(result, c.stamp) << c.text;
  }
}

TEST(ToTimeStamp, ReadsOnlyNinetyNineCharactersAndTracesEachFieldAndItsSeparator) {
  const std::string long_text = "2026-11-13 07:10:05" + std::string(80, ' ') + "x";
  char result[17];
  EXPECT_EQ(kvc::ToTimeStamp(long_text.c_str(), 0, result), 0);
  EXPECT_STREQ(result, "1261113071005000");
  kzq_test::LogCapture log;
  kvc::ToTimeStamp("2026-11-13", 0, result);
  const std::string text = log.Text();
  EXPECT_THAT(text, HasSubstr("UDT8082T"));
  EXPECT_THAT(text, HasSubstr("tcpin:11-13 -"));
  EXPECT_THAT(text, HasSubstr("UDT8081T"));
}

TEST(ReadTimeStamp, ReadsEveryFieldOfARealStampAndNothingElse) {
  platform::LocalTime t;
  ASSERT_TRUE(kvc::ReadTimeStamp("1261123182947123", &t));
  EXPECT_EQ(std::vector<int>({t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond}),
            std::vector<int>({2026, 11, 23, 18, 29, 47, 123}));
  ASSERT_TRUE(kvc::ReadTimeStamp("0991231235959000", &t));
  EXPECT_EQ(t.year, 1999);
  for (const char* not_a_time : {"0000000000000000", "0000000000000003", "1261323182947000", "1260229120000000",
                                 "126112318294700", "12611231829470000", "1261123 82947000", ""})
    EXPECT_FALSE(kvc::ReadTimeStamp(not_a_time, &t)) << not_a_time;
}

TEST(StringToTime, ReadsBothSeparatorStylesIntoTheCalendarAndRejectsTextWithoutATime) {
  kzq_test::LogCapture log;
  platform::LocalTime t;
  const int64_t seconds = kvc::StringToTime("2026/11/13 07:10:05", &t);
  platform::LocalTime expected = November13();
  EXPECT_EQ(seconds, platform::FromLocal(&expected));
  EXPECT_EQ(t.weekday, 5);
  EXPECT_EQ(kvc::StringToTime("2026-11-13 07.10.05.50", &t), seconds);
  EXPECT_EQ(t.millisecond, 500);
  EXPECT_EQ(kvc::StringToTime("2026/11/13", &t), -1);
  EXPECT_EQ(kvc::StringToTime("garbage", &t), -1);
  EXPECT_THAT(log.Text(), HasSubstr("Invalid str2timet: garbage"));
}

TEST(BoundedLength, StopsAtTheLimitAndWarnsWhenAsked) {
  kzq_test::LogCapture log;
  EXPECT_EQ(kvc::BoundedLength(nullptr, 5), 0u);
  EXPECT_EQ(kvc::BoundedLength("", 5), 0u);
  EXPECT_EQ(kvc::BoundedLength("abc", 5), 3u);
  EXPECT_EQ(log.Text(), "");
  platform::SetEnv("COLL_LENGTH_WARN", "1");
  kvc::ReloadOptions();
  EXPECT_EQ(kvc::BoundedLength("twelve chars", 12), 12u);
  EXPECT_EQ(kvc::BoundedLength("twelve chars and more", 12), 12u);
  platform::SetEnv("COLL_LENGTH_WARN", "");
  kvc::ReloadOptions();
  const std::string text = log.Text();
  EXPECT_THAT(text, HasSubstr("USL0305T"));
  EXPECT_THAT(text, HasSubstr("Exceeded max length on strlen:, 12"));
  EXPECT_THAT(text, HasSubstr("Exceeded max length on strlen: and more, 12"));
}

TEST(CopyFixed, PadsWithBlanksAndCutsWithoutTerminator) {
  char field[8];
  memset(field, '#', sizeof field);
  kvc::CopyFixed(field, 6, "abc");
  EXPECT_EQ(std::string(field, 8), "abc   ##");
  kvc::CopyFixed(field, 6, "abcdefghij");
  EXPECT_EQ(std::string(field, 8), "abcdef##");
  kvc::CopyFixed(field, 6, "");
  EXPECT_EQ(std::string(field, 8), "      ##");
}

TEST(QuoteText, QuotesOnlyWhenNeededAndDoublesQuotes) {
  char out[32];
  EXPECT_EQ(kvc::QuoteText("plain", '\'', ' ', out, sizeof out), 5);
  EXPECT_STREQ(out, "plain");
  EXPECT_EQ(kvc::QuoteText("two words", '\'', ' ', out, sizeof out), 11);
  EXPECT_STREQ(out, "'two words'");
  kvc::QuoteText("it's", '\'', ' ', out, sizeof out);
  EXPECT_STREQ(out, "'it''s'");
  EXPECT_EQ(kvc::QuoteText("two words", '\'', ' ', out, 11), -1);
  EXPECT_EQ(kvc::QuoteText("two words", '\'', ' ', out, 12), 11);
}

}  // namespace
