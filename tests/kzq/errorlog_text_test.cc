#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kzq/catalogue.h"
#include "kzq/error_event.h"
#include "kzq/errorlog_line.h"
#include "kzq/utf16_line_reader.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "tests/support/errorlog_writer.h"
#include "tests/support/table_rows.h"
#include "tests/support/temp_dir.h"

namespace {

using kzq_test::ErrorlogWriter;
using kzq_test::LogClock;

std::u16string U16(const std::string& utf8) { return platform::Utf8ToUtf16(utf8); }

// The lines of a file as the reader returns them, with the offset after each.
struct ReadBack {
  std::vector<std::u16string> lines;
  std::vector<long> ends;
};

ReadBack ReadAll(const std::string& path, size_t buffer_bytes, size_t max_units) {
  ReadBack back;
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return back;
  kzq::Utf16LineReader reader(file, buffer_bytes);
  for (std::u16string line; reader.ReadLine(&line, max_units);) {
    back.lines.push_back(line);
    back.ends.push_back(reader.Tell());
  }
  fclose(file);
  return back;
}

TEST(Utf16LineReader, ReturnsLinesWithTheirEndsCutsAtTheLimitAndEndsOnlyAtALineFeedUnit) {
  kzq_test::TempDir dir;
  kzq_test::WriteFile(dir.File("log"), "\xFF\xFE" + kzq_test::Utf16Bytes("abcdefghij\r\nshort\r\nlast") + "x");
  const ReadBack back = ReadAll(dir.File("log"), 64, 5);
  // The mark is a unit like any other; the half unit at the end is dropped.
  EXPECT_EQ(back.lines,
            (std::vector<std::u16string>{u"\uFEFFabc", u"defg", u"hij\r", u"\n", u"shor", u"t\r\n", u"last"}));
  EXPECT_EQ(back.ends.back(), 2 + 2 * 23);
  EXPECT_TRUE(ReadAll(dir.File("log"), 64, 1).lines.empty());
  // A line feed's byte found inside another unit, whether as its high or
  // its low byte, does not end the line, wherever the buffer splits it.
  kzq_test::WriteFile(dir.File("log"), std::string("\x0A\x0A" "\x0A\x01" "\x41\x0A" "\x00\x4E" "\x0A\x00" "x\x00", 12));
  for (size_t size : {1, 3, 4, 64}) {
    const ReadBack units = ReadAll(dir.File("log"), size, 2048);
    EXPECT_EQ(units.lines, (std::vector<std::u16string>{u"\u0A0A\u010A\u0A41\u4E00\n", u"x"})) << size;
    EXPECT_EQ(units.ends, (std::vector<long>{10, 12})) << size;
  }
}

TEST(Utf16LineReader, TellAndSeekAreExactWhateverTheBufferSize) {
  kzq_test::TempDir dir;
  ErrorlogWriter::Create(dir.File("log"), {}).Error("Logon", 18456, 14, 8, kzq_test::kJapaneseText).InfoLines(40);
  const std::string bytes = kzq_test::ReadFile(dir.File("log"));
  const ReadBack whole = ReadAll(dir.File("log"), 1 << 20, 2048);
  ASSERT_EQ(whole.lines.size(), 5u + 2 + 40);
  long end = 0;
  for (size_t i = 0; i < whole.lines.size(); ++i) {
    end += 2 * static_cast<long>(whole.lines[i].size());
    ASSERT_EQ(whole.ends[i], end);
  }
  EXPECT_EQ(end, static_cast<long>(bytes.size()));
  for (size_t size : {1, 3, 7, 64, 1000}) {
    const ReadBack small = ReadAll(dir.File("log"), size, 2048);
    EXPECT_EQ(small.lines, whole.lines) << size;
    EXPECT_EQ(small.ends, whole.ends) << size;
  }
  // Going back to any line's start reads that line again.
  FILE* file = fopen(dir.File("log").c_str(), "rb");
  ASSERT_NE(file, nullptr);
  kzq::Utf16LineReader reader(file, 7);
  std::u16string line;
  for (size_t i = whole.lines.size() - 1; i > 5; i -= 5) {
    ASSERT_TRUE(reader.Seek(whole.ends[i - 1]));
    ASSERT_TRUE(reader.ReadLine(&line, 2048));
    EXPECT_EQ(line, whole.lines[i]);
    EXPECT_EQ(reader.Tell(), whole.ends[i]);
  }
  const long before = reader.Tell();
  EXPECT_FALSE(reader.Seek(-2));
  EXPECT_EQ(reader.Tell(), before);
  fclose(file);
}

TEST(Utf16LineReader, FindsTextAppendedAfterTheEnd) {
  kzq_test::TempDir dir;
  ErrorlogWriter writer = ErrorlogWriter::Create(dir.File("log"), {});
  FILE* file = fopen(dir.File("log").c_str(), "rb");
  ASSERT_NE(file, nullptr);
  kzq::Utf16LineReader reader(file);
  std::u16string line;
  while (reader.ReadLine(&line, 2048)) {
  }
  const long end = reader.Tell();
  writer.Bytes("\x41");  // half a unit is not read yet
  EXPECT_FALSE(reader.ReadLine(&line, 2048));
  writer.Bytes(std::string(1, '\0') + kzq_test::Utf16Bytes("B\r\n"));
  ASSERT_TRUE(reader.ReadLine(&line, 2048));
  EXPECT_EQ(line, u"AB\r\n");
  EXPECT_EQ(reader.Tell(), end + 8);
  fclose(file);
}

TEST(ErrorlogLine, SplitsServerLinesAtThePaddedTextColumn) {
  const LogClock at{2026, 11, 23, 10, 15, 2, 31};
  kzq::LogLine line;
  const std::u16string padded = u"2026-11-23 10:15:02.31 spid52      Error: 18456,  State: 8.\r\n";
  EXPECT_EQ(U16(kzq_test::LogLineText(at, "spid52", "Error: 18456,  State: 8.") + "\r\n"), padded);
  ASSERT_TRUE(kzq::SplitLogLine(padded, &line));
  EXPECT_EQ(line.date_word, u"2026-11-23");
  EXPECT_EQ(line.time_word, u"10:15:02.31");
  EXPECT_EQ(line.source_word, u"spid52");
  EXPECT_EQ(line.text, u"Error: 18456,  State: 8.");
  for (const char* source : {"Server", "Logon", "spid12s", "spid1234s"}) {
    ASSERT_TRUE(kzq::SplitLogLine(U16(kzq_test::LogLineText(at, source, "  Starting up.")), &line));
    EXPECT_EQ(line.text, u"Starting up.") << source;
  }
  // Text one blank after the source word loses its first character.
  ASSERT_TRUE(kzq::SplitLogLine(u"2026-11-23 10:15:02.31 spid52 Error: 1", &line));
  EXPECT_EQ(line.text, u"rror: 1");
  ASSERT_TRUE(kzq::SplitLogLine(u"2026-11-23 10:15:02.31 spid52  Error: 1", &line));
  EXPECT_EQ(line.text, u"Error: 1");
  // Three words are a line without text; fewer are not a line.
  ASSERT_TRUE(kzq::SplitLogLine(u"2026-11-23 10:15:02.31 Server\r\n", &line));
  EXPECT_EQ(line.text, u"");
  for (const char16_t* bad : {u"", u"   \r\n", u"2026-11-23 10:15:02.31 \r\n", u"\uFEFF"})
    EXPECT_FALSE(kzq::SplitLogLine(bad, &line));
  // One LogLine taking line after line holds only what the last one gave.
  ASSERT_TRUE(kzq::SplitLogLine(u"2026-11-23 10:15:02.31 spid52      Error: 1", &line));
  EXPECT_FALSE(kzq::SplitLogLine(u"2026-11-23 10:15:02.31", &line));
  EXPECT_EQ(line.date_word + line.time_word + line.source_word + line.text, u"");
}

TEST(ErrorlogLine, ReadsTheTimeOnlyWhenAllSixNumbersAreThere) {
  kzq::LogTime t;
  ASSERT_TRUE(kzq::ParseLineTime({u"2026-11-23", u"10:15:02.31", u"spid52", u""}, &t));
  EXPECT_EQ(t.year, 126);
  EXPECT_EQ(t.month, 11);
  EXPECT_EQ(t.day, 23);
  EXPECT_EQ(t.hour * 10000 + t.minute * 100 + t.second, 101502);
  EXPECT_FALSE(kzq::ParseLineTime({u"2026-11", u"10:15:02.31", u"s", u""}, &t));
  EXPECT_FALSE(kzq::ParseLineTime({u"2026-11-23", u"10:15", u"s", u""}, &t));
  EXPECT_FALSE(kzq::ParseLineTime({u"\uFEFF2026-11-23", u"10:15:02", u"s", u""}, &t));
  // Words of any other shape read as far as they scan.
  ASSERT_TRUE(kzq::ParseLineTime({u"2026-11-2x", u"10:15:023", u"s", u""}, &t));
  EXPECT_EQ(t.day * 1000000 + t.hour * 10000 + t.minute * 100 + t.second, 2101523);
  ASSERT_TRUE(kzq::ParseLineTime({u"2026-+1-23", u"1:2:3", u"s", u""}, &t));
  EXPECT_EQ(t.month * 1000000 + t.hour * 10000 + t.minute * 100 + t.second, 1010203);
  EXPECT_FALSE(kzq::ParseLineTime({u"2026-1a-23", u"10:15:02", u"s", u""}, &t));
  EXPECT_FALSE(kzq::ParseLineTime({u"2026-11-23", u"10:15-02", u"s", u""}, &t));

  const kzq::LogTime base{126, 11, 23, 10, 15, 2};
  EXPECT_TRUE(kzq::IsLater({126, 11, 23, 10, 15, 3}, base));
  EXPECT_TRUE(kzq::IsLater({127, 1, 1, 0, 0, 0}, base));
  EXPECT_FALSE(kzq::IsLater(base, base));
  EXPECT_FALSE(kzq::IsLater({125, 12, 31, 23, 59, 59}, base));
  EXPECT_FALSE(kzq::IsLater({126, 11, 22, 23, 59, 59}, base));
}

TEST(ErrorlogLine, ErrorNumbersNeedAllThreeValuesAndTheWordItsWholeUnits) {
  EXPECT_TRUE(kzq::IsErrorLine(u"x Error: 1, Severity: 2, State: 3."));
  EXPECT_FALSE(kzq::IsErrorLine(u"x \u0145rror: 1, Severity: 2, State: 3."));
  EXPECT_TRUE(kzq::IsErrorLine(u"\u4545\u0145Error: 1, Severity: 2, State: 3."));
  EXPECT_FALSE(kzq::IsErrorLine(u"x Error: 1, Severity: 2."));
  long error = 0;
  int severity = 0, state = 0;
  ASSERT_TRUE(kzq::ParseErrorNumbers(u"Error: 18456, Severity: 14, State: 8.", &error, &severity, &state));
  EXPECT_EQ(error * 10000 + severity * 100 + state, 184561408);
  ASSERT_TRUE(kzq::ParseErrorNumbers(u"Error:99999999999,Severity:-1, State:  7", &error, &severity, &state));
  EXPECT_EQ(error, 2147483647);
  EXPECT_EQ(severity, -1);
  for (const char16_t* bad : {u"Error: 18456, Severity: 14.", u"Error: x, Severity: 14, State: 8.",
                              u"rror: 18456, Severity: 14, State: 8.", u"Error: 1, Severity: 2, State: ."})
    EXPECT_FALSE(kzq::ParseErrorNumbers(bad, &error, &severity, &state)) << platform::Utf16ToUtf8(bad);
}

// A word is found by whole units: a unit that only shares a byte with the
// word's first character is not its start.
TEST(ErrorlogLine, DumpWordsAreFoundByWholeUnitsAndTheSeverityOnlyAtTheTextsStart) {
  EXPECT_TRUE(kzq::IsSymptomDumpLine(u"\u6300\u0063reate create symptom dump"));
  EXPECT_FALSE(kzq::IsSymptomDumpLine(u"create symptom dum"));
  EXPECT_TRUE(kzq::IsStackDumpSentLine(u"**Stack Dump being sent"));
  EXPECT_FALSE(kzq::IsStackDumpSentLine(u"*Stack Dump being sent"));
  EXPECT_EQ(kzq::SymptomDumpSeverity(u"severity=20 Process 52 failed"), 20);
  EXPECT_EQ(kzq::SymptomDumpSeverity(u"severity=0"), 17);
  EXPECT_EQ(kzq::SymptomDumpSeverity(u"Process 52: severity=20"), 17);
  EXPECT_EQ(kzq::SymptomDumpSeverity(u"severity=high"), 17);
  EXPECT_EQ(kzq::SymptomDumpSeverity(u""), 17);
}

// A field of a kzqerror row or, with `from` the event's offset, of an event.
std::string Field(const std::string& bytes, const char* name, int from = 0) {
  return kzq_test::FieldBytes(kzq::kzqerror_spec, bytes, name, from);
}
int32_t IntField(const std::string& bytes, const char* name, int from = 0) {
  return kzq_test::FieldInt(kzq::kzqerror_spec, bytes, name, from);
}

const int kEventOffset = kzq::kzqerror_spec.offsets[kzq::kzqerror_spec.IndexOf("MSGTIME")];

std::string Padded(const std::string& text, size_t width) { return text + std::string(width - text.size(), ' '); }

kzq::EventInputs Inputs(const std::u16string& text) {
  kzq::EventInputs in;
  in.time = {126, 11, 23, 10, 15, 2};
  in.error = 18456;
  in.severity = 14;
  in.state = 8;
  in.text = text;
  in.source_word = u"spid52";
  platform::LocalTime local{2026, 11, 23, 10, 15, 2};
  in.now = platform::FromLocal(&local) + 2 * 3600 + 59;
  return in;
}

std::string MessageField(const std::u16string& text) {
  return Field(kzq::BuildErrorEvent(Inputs(text)), "UMSGTEXT", kEventOffset);
}

TEST(ErrorEvent, HoldsTheLinesTimeAgeNumbersAndSource) {
  kzq::EventInputs in = Inputs(U16(kzq_test::kGermanText));
  const std::string event = kzq::BuildErrorEvent(in);
  ASSERT_EQ(static_cast<int>(event.size()), kzq::kzqerror_spec.row_size - kEventOffset);
  EXPECT_EQ(Field(event, "MSGTIME", kEventOffset), "1261123101502000");
  EXPECT_EQ(IntField(event, "MSGAGE", kEventOffset), 120);
  EXPECT_EQ(Field(event, "ERRORID", kEventOffset), "18456       ");
  EXPECT_EQ(IntField(event, "SEVERITY", kEventOffset), 14);
  EXPECT_EQ(IntField(event, "SQLSTATE", kEventOffset), 8);
  EXPECT_EQ(Field(event, "MSGISSUER", kEventOffset), "spid52  ");
  EXPECT_EQ(Field(event, "SAMPTIME", kEventOffset), "1261123121601000");
  EXPECT_EQ(Field(event, "UMSGTEXT", kEventOffset), Padded(kzq_test::kGermanText, 360));
  EXPECT_EQ(Field(event, "ERRSPID", kEventOffset), Padded("spid52", 48));
  // An age before the line counts toward zero; long sources are cut.
  in.now -= 2 * 3600 + 59 + 90;
  in.source_word = u"spid1234567s";
  const std::string early = kzq::BuildErrorEvent(in);
  EXPECT_EQ(IntField(early, "MSGAGE", kEventOffset), -1);
  EXPECT_EQ(Field(early, "MSGISSUER", kEventOffset), "spid123 ");
}

TEST(ErrorEvent, MessagesThatDoNotFitKeepTheirFirstHalf) {
  EXPECT_EQ(MessageField(U16(std::string(359, 'a'))), std::string(359, 'a') + " ");
  EXPECT_EQ(MessageField(U16(std::string(360, 'a'))), Padded(std::string(180, 'a'), 360));
  std::string umlauts;
  for (int i = 0; i < 200; ++i) umlauts += "ü";
  EXPECT_EQ(MessageField(U16(umlauts)), Padded(umlauts.substr(0, 200), 360));
  // Half of "a" and 300 three-byte characters is still too long: it is cut
  // to the field between characters.
  std::string kana = "a";
  for (int i = 0; i < 300; ++i) kana += "ユ";
  EXPECT_EQ(MessageField(U16(kana)), Padded(kana.substr(0, 1 + 119 * 3), 360));
  // The cut never leaves half a surrogate pair behind.
  std::string emoji = "a";
  for (int i = 0; i < 100; ++i) emoji += "💾";
  EXPECT_EQ(MessageField(U16(emoji)), Padded(emoji.substr(0, 1 + 49 * 4), 360));
}

TEST(ErrorEvent, RowPutsTheAgentsFieldsBeforeTheEvent) {
  const std::string event = kzq::BuildErrorEvent(Inputs(u"Login failed."));
  const std::string row = kzq::BuildErrorRow(event, "agent01", "SQL1", "db01", "1261123121601000");
  ASSERT_EQ(static_cast<int>(row.size()), kzq::kzqerror_spec.row_size);
  EXPECT_EQ(Field(row, "ORIGINNODE"), Padded("agent01", 64));
  EXPECT_EQ(IntField(row, "SAMPLENO"), 1);
  EXPECT_EQ(IntField(row, "ROWNO"), 1);
  EXPECT_EQ(Field(row, "TIMESTAMP"), "1261123121601000");
  EXPECT_EQ(Field(row, "SERVERID"), Padded("SQL1", 32));
  EXPECT_EQ(Field(row, "HOSTNAME"), Padded("db01", 64));
  EXPECT_EQ(row.substr(static_cast<size_t>(kEventOffset)), event);
  const std::string bare = kzq::BuildErrorRow("short", "agent01", nullptr, nullptr, "");
  EXPECT_EQ(Field(bare, "SERVERID") + Field(bare, "HOSTNAME"), std::string(96, ' '));
  EXPECT_EQ(bare.substr(static_cast<size_t>(kEventOffset)), Padded("short", event.size()));
}

}  // namespace
