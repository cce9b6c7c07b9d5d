// The file-backed store (POSIX): the values-file text, and the files a key
// leaves behind - hand edits, broken lines, crashed writers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <random>
#include <string>

#include "platform/posix/registry_keys.h"
#include "platform/posix/registry_values.h"
#include "tests/registry/registry_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using platform::posix::FormatValues;
using platform::posix::ParseValues;
using platform::posix::StoredValue;
using platform::posix::ValuesDocument;
using testing::ElementsAre;
using testing::HasSubstr;

// A literal with its inner NULs, without the one the compiler adds.
template <size_t N>
std::string Lit(const char (&text)[N]) {
  return std::string(text, N - 1);
}

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s += static_cast<char>(b);
  return s;
}

// What a document says, as "name|type|bytes" lines, for comparing.
std::vector<std::string> Summary(const ValuesDocument& d) {
  std::vector<std::string> out;
  for (size_t i = 0; const StoredValue* v = d.At(i); ++i)
    out.push_back(v->name + "|" + std::to_string(v->type) + "|" + v->data);
  return out;
}

TEST(ValuesText, ReadsEveryForm) {
  const ValuesDocument d = ParseValues(
      "# settings\n"
      "Dir = sz:C:\\Program Files\\kzq \n"
      "Home=expand_sz:%HOME%/kzq\n"
      "\"odd = name\" = sz:\"two\\nlines \\\"quoted\\\" \\x41\"\n"
      "Retries = dword:4294967295\n"
      "Mask = DWORD:0x10\n"
      "Big = qword:5000000000\n"
      "Blob = binary:00 ff,0A\n"
      "List = multi_sz:\"a\", \"b\\\\c\"\n"
      "Empty = multi_sz:\n"
      "@ = sz:\n"
      "Raw = hex(9):01 02\r\n");
  EXPECT_THAT(d.problems, ElementsAre());
  EXPECT_THAT(Summary(d),
              ElementsAre(Lit("Dir|1|C:\\Program Files\\kzq\0"),
                          Lit("Home|2|%HOME%/kzq\0"),
                          Lit("odd = name|1|two\nlines \"quoted\" A\0"),
                          "Retries|4|" + Bytes({255, 255, 255, 255}),
                          "Mask|4|" + Bytes({16, 0, 0, 0}),
                          "Big|11|" + Bytes({0x00, 0xF2, 0x05, 0x2A, 0x01, 0, 0, 0}),
                          "Blob|3|" + Bytes({0, 255, 10}),
                          Lit("List|7|a\0b\\c\0\0"), Lit("Empty|7|\0"),
                          Lit("|1|\0"), "Raw|9|" + Bytes({1, 2})));
}

TEST(ValuesText, BadLinesAreReportedWithTheirNumberAndKept) {
  const std::string text =
      "Good = dword:1\n"
      "no equals sign\n"
      "Bad = frobnicate:1\n"
      "Num = dword:4294967296\n"
      "Hex = binary:0g\n"
      "Quote = sz:\"open\n"
      "Esc = sz:\"\\q\"\n"
      " = sz:nameless\n"
      "good = dword:2\n"
      "Ctl = sz:a\x01z\n"
      "Last = sz:ok";
  const ValuesDocument d = ParseValues(text);
  std::vector<int> lines;
  for (const auto& p : d.problems) lines.push_back(p.line);
  EXPECT_THAT(lines, ElementsAre(2, 3, 4, 5, 6, 7, 8, 9, 10));
  EXPECT_THAT(d.problems[1].message, HasSubstr("unknown type 'frobnicate'"));
  EXPECT_THAT(d.problems[7].message, HasSubstr("appears twice"));
  EXPECT_THAT(Summary(d), ElementsAre("Good|4|" + Bytes({1, 0, 0, 0}),
                                      Lit("Last|1|ok\0")));
  EXPECT_EQ(text + "\n", FormatValues(d)) << "nothing a person wrote is lost";
}

TEST(ValuesText, RewritingKeepsCarriageReturnsAndRefusedLinesStayRefused) {
  const std::string text = "# note\r\r\nA = sz:a\r\r\nB = dword:1\r\n";
  const ValuesDocument d = ParseValues(text);
  ASSERT_EQ(FormatValues(d), text);
  const ValuesDocument again = ParseValues(FormatValues(d));
  EXPECT_EQ(FormatValues(again), text);
  EXPECT_EQ(again.Find("A"), nullptr) << "a control character in an unquoted text is refused every time";
  ASSERT_NE(again.Find("B"), nullptr);
}

// New lines take the friendly form where the data allows: a text without
// its terminator cannot be written as sz.
TEST(ValuesText, ChangesTouchOnlyTheirOwnLine) {
  ValuesDocument d = ParseValues("# keep me\nA=dword:0x01\nB = sz:b\nbroken\n");
  d.Set({"b", 1, Lit("new\0")});
  d.Set({"C", 4, Bytes({2, 0, 0, 0})});
  d.Set({"Odd", 1, "abc"});
  EXPECT_TRUE(d.Remove("a"));
  EXPECT_FALSE(d.Remove("a"));
  EXPECT_EQ("# keep me\nB = sz:new\nbroken\nC = dword:2\nOdd = hex(1):61 62 63\n", FormatValues(d));
}

// Any name a caller can pass and any bytes of any type come back exactly:
// blanks around names, leading '#' and '"', inner and missing NULs, short
// dwords, empty lists, control characters.
TEST(ValuesText, RandomValuesSurviveTheFile) {
  const std::string name_chars = std::string("a =\"\\#@\n\t\x7f", 10);
  const std::string data_chars = std::string("\0a \"\\\n\r\x7f\xff,\x01\t", 12);
  const uint32_t types[] = {0, 1, 2, 3, 4, 7, 9, 11};
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    ValuesDocument d;
    for (int n = 0; n < 3; ++n) {
      StoredValue v;
      for (int i = static_cast<int>(random() % 5); i > 0; --i) v.name += name_chars[random() % 10];
      for (int i = static_cast<int>(random() % 9); i > 0; --i) v.data += data_chars[random() % data_chars.size()];
      v.type = types[random() % std::size(types)];
      d.Set(v);
    }
    const std::string text = FormatValues(d);
    const ValuesDocument back = ParseValues(text);
    ASSERT_TRUE(back.problems.empty()) << back.problems[0].message << "\n" << text;
    ASSERT_EQ(Summary(d), Summary(back)) << text;
  }
}

TEST(KeyNames, StoreFilesNeverClashWithKeys) {
  using platform::posix::DecodeKeyName;
  using platform::posix::EncodeKeyName;
  EXPECT_EQ("%2Evalues", EncodeKeyName(".values"));
  EXPECT_EQ("a%2Fb%25c.d", EncodeKeyName("a/b%c.d"));
  for (const char* name : {".values", "a/b%c.d", "..", "50%off", "%2F"})
    EXPECT_EQ(name, DecodeKeyName(EncodeKeyName(name)));
  EXPECT_EQ("50%off", DecodeKeyName("50%off")) << "hand-made names stay as they are";
}

class FileStoreTest : public kzq_test::RegistryTest {
 protected:
  std::string KeyDir(const std::string& sub) const {
    std::string dir = root_.Path() + "/HKEY_CURRENT_USER/" + Path(sub);
    for (char& c : dir)
      if (c == '\\') c = '/';
    return dir;
  }
};

TEST_F(FileStoreTest, KeysAreDirectoriesAndValuesAReadableFileEditedByHand) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, "Child", true));
  ASSERT_EQ(CRegistry::kOk, r.PutValue("Dir", "/opt/kzq"));
  const uint32_t three = 3;
  ASSERT_EQ(CRegistry::kOk, r.PutValue("Level", &three, platform::kRegDword, sizeof three));
  EXPECT_EQ("Dir = expand_sz:/opt/kzq\nLevel = dword:3\n",
            kzq_test::ReadFile(KeyDir("Child") + "/.values"));
  std::filesystem::create_directories(KeyDir("Hand/Made"));
  kzq_test::WriteFile(KeyDir("Hand/Made") + "/.values", "# by hand\nServer = sz:db01\n");
  CRegistry hand;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(hand, "HAND\\made"));
  EXPECT_EQ("db01", Text(hand, "SERVER")) << "hand edits are found in any case";
}

TEST_F(FileStoreTest, BrokenValuesFileIsReportedAndTheRestStillLoads) {
  kzq_test::LogCapture log;
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, ""));
  kzq_test::WriteFile(KeyDir("") + "/.values", "A = sz:one\nB = sz\nC = dword:7\n");
  EXPECT_EQ("one", Text(r, "A"));
  EXPECT_EQ("<missing>", Text(r, "B"));
  uint32_t values = 0;
  ASSERT_EQ(CRegistry::kOk, r.QueryKey(nullptr, nullptr, &values, nullptr));
  EXPECT_EQ(2u, values);
  EXPECT_THAT(log.Text(), HasSubstr(KeyDir("") + "/.values:2: expected type:value"));
  EXPECT_THAT(log.Text(), HasSubstr("REG0100E"));

  ASSERT_EQ(CRegistry::kOk, r.PutValue("D", "four"));
  EXPECT_EQ("A = sz:one\nB = sz\nC = dword:7\nD = expand_sz:four\n",
            kzq_test::ReadFile(KeyDir("") + "/.values"))
      << "the broken line stays for a person to mend";
}

TEST_F(FileStoreTest, LeftoverTemporaryFileChangesNothing) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, ""));
  ASSERT_EQ(CRegistry::kOk, r.PutValue("Kept", "old"));
  // A writer that died between writing its temporary file and the rename.
  kzq_test::WriteFile(KeyDir("") + "/.values.tmp.999999.0", "Kept = sz:half-writ");
  EXPECT_EQ("old", Text(r, "Kept"));
  ASSERT_EQ(CRegistry::kOk, r.PutValue("Kept", "new"));
  EXPECT_EQ("new", Text(r, "Kept"));
  uint32_t subkeys = 9;
  ASSERT_EQ(CRegistry::kOk, r.QueryKey(nullptr, nullptr, nullptr, &subkeys));
  EXPECT_EQ(0u, subkeys) << "store files are not keys";
  r.Close();
  CRegistry parent;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(parent, ""));
  ASSERT_EQ(CRegistry::kOk, parent.Position("..", false));
  EXPECT_EQ(CRegistry::kOk, parent.DeleteKey(("\\" + base_).c_str(), false));
  EXPECT_FALSE(std::filesystem::exists(KeyDir(""))) << "the leftover goes with its key";
}

TEST_F(FileStoreTest, KeyNamesWithSlashesAndDotsAreKeys) {
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(r, "a/b", true));
  ASSERT_EQ(CRegistry::kOk, r.Position(("\\" + Path(".values")).c_str(), true));
  CRegistry lister;
  ASSERT_EQ(CRegistry::kOk, OpenReadOnly(lister, ""));
  std::vector<std::string> names;
  char name[32];
  for (uint32_t size = sizeof name;
       lister.EnumKeys(name, &size, nullptr, nullptr, nullptr, nullptr, false) == 0;
       size = sizeof name)
    names.push_back(name);
  EXPECT_THAT(names, ElementsAre(".values", "a/b"));
}

TEST_F(FileStoreTest, KeyDeletedUnderAnOpenHandleGives1018) {
  MakeKeys({"gone"});
  CRegistry holder;
  ASSERT_EQ(CRegistry::kOk, OpenWritable(holder, "gone"));
  std::filesystem::remove_all(KeyDir("gone"));
  EXPECT_EQ(CRegistry::kApiFailed, holder.PutValue("x", "y"));
  EXPECT_EQ(platform::kErrKeyDeleted, holder.QueryError(nullptr));
}

TEST_F(FileStoreTest, MissingRootIsAnEmptyStoreUntilTheFirstWrite) {
  platform::SetEnv("KZQ_REGISTRY_ROOT", root_.File("fresh/registry"));
  CRegistry r;
  ASSERT_EQ(CRegistry::kOk, r.Open(nullptr, platform::kLocalMachine, nullptr, false));
  uint32_t values = 9, subkeys = 9;
  ASSERT_EQ(CRegistry::kOk, r.QueryKey(nullptr, nullptr, &values, &subkeys));
  EXPECT_EQ(0u, values + subkeys);
  EXPECT_EQ(CRegistry::kApiFailed, r.Position("Software", false));
  CRegistry w;
  w.Attributes(platform::kKeyAllAccess, 0, nullptr, nullptr);
  ASSERT_EQ(CRegistry::kOk, w.Open(nullptr, platform::kLocalMachine, "Software\\kzq", true));
  ASSERT_EQ(CRegistry::kOk, w.PutValue("v", "1"));
  EXPECT_TRUE(std::filesystem::exists(
      root_.File("fresh/registry/HKEY_LOCAL_MACHINE/Software/kzq/.values")));
}

}  // namespace
