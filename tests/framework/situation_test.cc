#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "framework/situation.h"
#include "kvc/string_time.h"

namespace {

using framework::AttributeKind;
using framework::FilterElement;
using framework::IsException;
using framework::kOpEQ;
using framework::kOpGE;
using framework::kOpGT;
using framework::kOpLE;
using framework::kOpLIKE;
using framework::kOpLT;
using framework::kOpNE;
using framework::SituationFilter;
using testing::ElementsAre;

// A table row as the agent publishes it: blank-padded text, 32-bit integers.
struct Row {
  char dbname[12];
  char status[10];
  int32_t pctdbfree;
  int32_t cpu;
};

Row MakeRow(std::string_view dbname, std::string_view status, int32_t pctdbfree, int32_t cpu) {
  Row row;
  kvc::CopyFixed(row.dbname, sizeof row.dbname, dbname);
  kvc::CopyFixed(row.status, sizeof row.status, status);
  row.pctdbfree = pctdbfree;
  row.cpu = cpu;
  return row;
}

// The attribute test a table would run for this row.
int TestRow(const Row& row, const FilterElement& e) {
  if (e.attribute == "DBNAME") return IsException(e.op, row.dbname, e.value.c_str(), sizeof row.dbname);
  if (e.attribute == "STATUS") return IsException(e.op, row.status, e.value.c_str(), sizeof row.status);
  if (e.attribute == "PCTDBFREE") return IsException(e.op, row.pctdbfree, e.value.c_str());
  return IsException(e.op, row.cpu, e.value.c_str());
}

std::optional<AttributeKind> RowAttributes(std::string_view name) {
  if (name == "DBNAME" || name == "STATUS") return AttributeKind::kText;
  if (name == "PCTDBFREE" || name == "CPU") return AttributeKind::kInteger;
  return std::nullopt;
}

SituationFilter ParseOrDie(std::string_view text) {
  std::string error;
  std::optional<SituationFilter> filter = SituationFilter::Parse(text, RowAttributes, &error);
  EXPECT_TRUE(filter.has_value()) << text << ": " << error;
  return filter ? *filter : *SituationFilter::Parse("CPU EQ 0", RowAttributes, &error);
}

std::string ParseError(std::string_view text) {
  std::string error;
  EXPECT_FALSE(SituationFilter::Parse(text, RowAttributes, &error).has_value()) << text;
  return error;
}

bool Holds(std::string_view text, const Row& row) {
  return ParseOrDie(text).Evaluate([&](const FilterElement& e) { return TestRow(row, e); });
}

std::vector<std::string> Described(const SituationFilter& filter) {
  std::vector<std::string> out;
  for (const FilterElement& e : filter.Elements())
    out.push_back(e.attribute + " " + framework::CompareOpName(e.op) + " " + e.value);
  return out;
}

// --- Comparisons on one field -------------------------------------------

struct TextCase {
  std::string field;  // exactly the field's bytes; its width is the size
  int op;
  const char* value;
  int expected;
};

TEST(TextCompare, PaddingOrderAndLikeWildcards) {
  const TextCase cases[] = {
      {"master  ", kOpEQ, "master", 1}, {"master  ", kOpNE, "master", 0},
      {"master  ", kOpEQ, "master   ", 1},  // the value is blank-padded too
      {std::string("master\0\0", 8), kOpEQ, "master", 1},
      {std::string("ab\0xyz", 6), kOpEQ, "ab", 1},  // nothing after a NUL counts
      {" master ", kOpEQ, "master", 0},  // leading blanks do
      {"ab  ", kOpLT, "abc", 1}, {"abc ", kOpGT, "ab", 1}, {"abc", kOpLT, "abd", 1}, {"abd", kOpGT, "abc", 1},
      {"abc", kOpGE, "abc", 1}, {"abc", kOpLE, "abc", 1}, {"abc", kOpGE, "abd", 0}, {"abd", kOpLE, "abc", 0},
      {"\xE9", kOpGT, "z", 1},  // bytes above 127 sort last, as in strcmp
      {"", kOpEQ, "", 1}, {"  ", kOpLT, "a", 1}, {"abc", 0, "abc", 0}, {"abc", 99, "abc", 0},
      // LIKE
      {"tempdb  ", kOpLIKE, "tempdb%", 1}, {"tempdb2 ", kOpLIKE, "tempdb%", 1}, {"xtempdb ", kOpLIKE, "tempdb%", 0},
      {"master", kOpLIKE, "aster", 0}, {"master", kOpLIKE, "Master", 0}, {"master", kOpLIKE, "m_ster", 1},
      {"master", kOpLIKE, "m__ster", 0}, {"master  ", kOpLIKE, "maste_", 1},
      {"master  ", kOpLIKE, "master_", 0},  // padding is not a character
      {"xaxxb", kOpLIKE, "%a%b", 1}, {"xaxxbc", kOpLIKE, "%a%b", 0}, {"aaab", kOpLIKE, "%aab", 1},
      {"abab", kOpLIKE, "a%b", 1}, {"abcabd", kOpLIKE, "%ab_", 1}, {"abxbxc", kOpLIKE, "a%b%c", 1},
      {"master", kOpLIKE, "master%%", 1}, {"  ", kOpLIKE, "%", 1}, {"", kOpLIKE, "", 1}, {"a", kOpLIKE, "", 0},
      {"", kOpLIKE, "_", 0}};
  for (const TextCase& c : cases)
    EXPECT_EQ(IsException(c.op, c.field.data(), c.value, static_cast<int>(c.field.size())), c.expected)
        << '"' << c.field << "\" " << framework::CompareOpName(c.op) << " '" << c.value << "'";
}

TEST(TextCompare, ReadsNoFurtherThanTheWidthAndNullReadsAsEmpty) {
  EXPECT_EQ(IsException(kOpEQ, "abcdef", "abc", 3), 1);
  EXPECT_EQ(IsException(kOpLIKE, "abcdef", "abc", 3), 1);
  EXPECT_EQ(IsException(kOpEQ, nullptr, "", 8), 1);
  EXPECT_EQ(IsException(kOpEQ, "abc", nullptr, 3), 0);
  EXPECT_EQ(IsException(kOpGT, "abc", nullptr, 3), 1);
  EXPECT_EQ(IsException(kOpEQ, "abc", "", 0), 1);
}

TEST(IntegerCompare, EveryOperatorAgainstLessEqualAndGreaterAndAtThe32BitEdges) {
  EXPECT_EQ(IsException(kOpEQ, INT32_MIN, "-2147483648"), 1);
  EXPECT_EQ(IsException(kOpLT, INT32_MIN, "-2147483647"), 1);
  EXPECT_EQ(IsException(kOpEQ, INT32_MAX, "2147483647"), 1);
  EXPECT_EQ(IsException(kOpGT, INT32_MAX, "2147483646"), 1);
  EXPECT_EQ(IsException(kOpGE, INT32_MAX, "+2147483647"), 1);
  EXPECT_EQ(IsException(kOpLE, INT32_MIN, "-00002147483648"), 1);
  EXPECT_EQ(IsException(kOpGT, 0, "-1"), 1);
  EXPECT_EQ(IsException(kOpLT, -1, "0"), 1);
  const int ops[] = {kOpEQ, kOpNE, kOpGE, kOpLE, kOpLT, kOpGT};
  const int when_less[] = {0, 1, 0, 1, 1, 0};
  const int when_equal[] = {1, 0, 1, 1, 0, 0};
  const int when_greater[] = {0, 1, 1, 0, 0, 1};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(IsException(ops[i], 4, "5"), when_less[i]) << framework::CompareOpName(ops[i]);
    EXPECT_EQ(IsException(ops[i], 5, "5"), when_equal[i]) << framework::CompareOpName(ops[i]);
    EXPECT_EQ(IsException(ops[i], 6, "5"), when_greater[i]) << framework::CompareOpName(ops[i]);
  }
}

TEST(IntegerCompare, UnreadableValuesAndLikeNeverHold) {
  for (const char* value :
       {"2147483648", "-2147483649", "99999999999999999999", "ten", "", "+", "--5", "5 ", "0x10"})
    EXPECT_EQ(IsException(kOpNE, 7, value), 0) << value;
  EXPECT_EQ(IsException(kOpNE, 7, nullptr), 0);
  EXPECT_EQ(IsException(kOpLIKE, 7, "7"), 0);
}

// --- Filters over a row --------------------------------------------------

const Row kMaster = MakeRow("master", "sleeping", 5, 150);

TEST(FilterEvaluation, PrecedenceParenthesesAndCase) {
  const std::pair<const char*, bool> cases[] = {
      // AND binds tighter than OR, NOT tighter than AND
      {"DBNAME EQ 'x' AND STATUS EQ 'x' OR CPU GT 100", true},
      {"CPU GT 100 OR DBNAME EQ 'x' AND STATUS EQ 'x'", true},
      {"NOT DBNAME EQ 'x' AND STATUS EQ 'x'", false},
      {"NOT DBNAME EQ 'x' AND NOT STATUS EQ 'x'", true},
      {"(CPU GT 100 OR DBNAME EQ 'master') AND PCTDBFREE GT 10", false},
      {"NOT (STATUS EQ 'sleeping' OR CPU GT 100)", false},
      {"NOT (NOT (DBNAME LIKE 'mas%'))", true},
      // keywords and names ignore case, values keep theirs
      {"dbname eq 'master' and not Cpu lt 100 Or status like 'x'", true},
      {"DBNAME EQ 'MASTER'", false},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(Holds(text, kMaster), expected) << text;
}

TEST(FilterEvaluation, SymbolicOperatorsMeanTheirKeywords) {
  const std::pair<const char*, int> symbols[] = {{"=", kOpEQ},  {"!=", kOpNE}, {"<>", kOpNE}, {">=", kOpGE},
                                                 {"<=", kOpLE}, {"<", kOpLT},  {">", kOpGT}};
  for (const auto& [symbol, op] : symbols) {
    const SituationFilter filter = ParseOrDie(std::string("CPU") + symbol + "150");
    EXPECT_EQ(filter.Elements().at(0).op, op) << symbol;
  }
  EXPECT_TRUE(Holds("CPU>=150 AND CPU<=150 AND CPU<>149 AND DBNAME>'m'", kMaster));
}

TEST(FilterEvaluation, StopsAskingOnceSettled) {
  int asked = 0;
  const auto counting = [&](const FilterElement& e) {
    ++asked;
    return TestRow(kMaster, e);
  };
  EXPECT_TRUE(ParseOrDie("CPU GT 100 OR DBNAME EQ 'x' OR STATUS EQ 'x'").Evaluate(counting));
  EXPECT_EQ(asked, 1);
  asked = 0;
  EXPECT_FALSE(ParseOrDie("CPU LT 100 AND DBNAME EQ 'master'").Evaluate(counting));
  EXPECT_EQ(asked, 1);
}

TEST(FilterElements, TextAndNumbersAreReadAsWrittenInTheOrderOfTheText) {
  EXPECT_THAT(Described(ParseOrDie("DBNAME EQ 'it''s' AND STATUS EQ '' AND DBNAME EQ 007")),
              ElementsAre("DBNAME EQ it's", "STATUS EQ ", "DBNAME EQ 007"));
  EXPECT_THAT(Described(ParseOrDie("CPU EQ '+150' OR CPU EQ -0 OR CPU EQ -2147483648 OR CPU = 2147483647")),
              ElementsAre("CPU EQ 150", "CPU EQ 0", "CPU EQ -2147483648", "CPU EQ 2147483647"));
  EXPECT_THAT(Described(ParseOrDie("DBNAME EQ 'a  b\t(c)'")), ElementsAre("DBNAME EQ a  b\t(c)"));
  EXPECT_THAT(
      Described(ParseOrDie("CPU GT 1 OR (dbname EQ 'a' AND NOT STATUS LIKE 's%') AND PCTDBFREE <= -3")),
      ElementsAre("CPU GT 1", "DBNAME EQ a", "STATUS LIKE s%", "PCTDBFREE LE -3"));
}

// --- Errors ------------------------------------------------------------------

struct ErrorCase {
  std::string text;
  const char* message;
};

TEST(FilterErrors, NameTheProblemAndItsColumn) {
  const ErrorCase cases[] = {
      {"DBNAM EQ 'x'", "unknown attribute 'DBNAM' at column 1"},
      {"DBNAME EQUALS 'master'", "unknown operator 'EQUALS' at column 8 (expected EQ NE GE LE LT GT LIKE)"},
      {"DBNAME", "expected an operator at column 7 (EQ NE GE LE LT GT LIKE)"},
      {"DBNAME EQ 'master' AND PCTDBFREE LT 'ten'",
       "'ten' is not a number for integer attribute PCTDBFREE at column 37"},
      {"PCTDBFREE LT 2147483648", "'2147483648' does not fit in 32 bits for integer attribute PCTDBFREE at column 14"},
      {"CPU EQ '-2147483649'", "'-2147483649' does not fit in 32 bits for integer attribute CPU at column 8"},
      {"CPU LIKE '1%'", "LIKE does not apply to integer attribute CPU at column 5"},
      {"DBNAME = 'master", "unterminated text at column 10"}, {"DBNAME = 'it''", "unterminated text at column 10"},
      {"DBNAME EQ master", "expected a value at column 11 (text values go in single quotes)"},
      {"DBNAME EQ", "expected a value at column 10"}, {"AND DBNAME EQ 'x'", "expected an attribute name at column 1"},
      {"DBNAME EQ 'x' OR", "expected an attribute name at column 17"},
      {"NOT", "expected an attribute name at column 4"}, {"()", "expected an attribute name at column 2"},
      {"'master' EQ DBNAME", "expected an attribute name at column 1"},
      {"(DBNAME EQ 'x' OR (CPU GT 1)", "unbalanced parenthesis at column 1"},
      {"DBNAME EQ 'x')", "unbalanced parenthesis at column 14"},
      {"DBNAME EQ 'x' CPU GT 1", "expected AND or OR at column 15"},
      {"(DBNAME EQ 'x' CPU GT 1)", "expected AND, OR or ')' at column 16"},
      {"CPU GT 10x", "malformed number '10x' at column 8"}, {"CPU GT -", "unexpected character '-' at column 8"},
      {"CPU ! 1", "unexpected character '!' at column 5"},
      {"DBNAME EQ \"master\"", "unexpected character '\"' at column 11"},
      {std::string("DBNAME EQ 'a\0b'", 15), "NUL character in text at column 13"},
      {std::string("CPU EQ 1 \0", 10), "unexpected character '\\x00' at column 10"},
      {"CPU EQ 'x\ny'", "'x\\x0Ay' is not a number for integer attribute CPU at column 8"}, {"", "empty filter"},
      {" \t\r\n ", "empty filter"}};
  for (const ErrorCase& c : cases) EXPECT_EQ(ParseError(c.text), c.message) << '"' << c.text << '"';
}

TEST(FilterErrors, LongNamesAreCutInTheMessageAndNoErrorTextOrLookupIsNoCrash) {
  EXPECT_EQ(ParseError(std::string(500, 'Q') + " EQ 1"), "unknown attribute '" + std::string(40, 'Q') + "...' at column 1");
  EXPECT_FALSE(SituationFilter::Parse("CPU EQ", RowAttributes, nullptr).has_value());
  std::string error;
  EXPECT_FALSE(SituationFilter::Parse("CPU EQ 1", framework::AttributeKindLookup(), &error).has_value());
  EXPECT_EQ(error, "unknown attribute 'CPU' at column 1");
}

// --- Limits ------------------------------------------------------------------

std::string Repeated(std::string_view piece, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) out += piece;
  return out;
}

TEST(FilterLimits, TextAndNestingUpToTheLimitParse) {
  const std::string clause = "CPU GT 1 OR ";
  std::string text = Repeated(clause, (framework::kMaxFilterLength - 9) / clause.size()) + "CPU LT 1";
  text.resize(framework::kMaxFilterLength, ' ');
  const SituationFilter filter = ParseOrDie(text);
  EXPECT_EQ(filter.Elements().size(), (framework::kMaxFilterLength - 9) / clause.size() + 1);
  EXPECT_TRUE(filter.Evaluate([](const FilterElement& e) { return TestRow(kMaster, e); }));
  EXPECT_EQ(ParseError(text + " "), "filter longer than 4096 characters");
  EXPECT_EQ(ParseError(std::string(100000, '(')), "filter longer than 4096 characters");
  const size_t limit = framework::kMaxFilterNesting;
  EXPECT_TRUE(Holds(Repeated("(", limit) + "CPU GT 1" + Repeated(")", limit), kMaster));
  EXPECT_TRUE(Holds(Repeated("NOT ", limit) + "CPU GT 1", kMaster));  // an even count
  EXPECT_TRUE(Holds(Repeated("NOT (", limit / 2) + "CPU GT 1" + Repeated(")", limit / 2), kMaster));
  EXPECT_EQ(ParseError(Repeated("(", limit + 1) + "CPU GT 1" + Repeated(")", limit + 1)),
            "nesting deeper than 64 levels at column 65");
  EXPECT_EQ(ParseError(Repeated("NOT ", limit + 1) + "CPU GT 1"),
            "nesting deeper than 64 levels at column 257");
  EXPECT_EQ(ParseError(Repeated("(", 4000)), "nesting deeper than 64 levels at column 65");
}

// --- Canonical text ----------------------------------------------------------

struct CanonicalCase {
  const char* text;
  const char* canonical;
};

TEST(CanonicalText, IsStableAndParsesBackToTheSameFilter) {
  const CanonicalCase cases[] = {
      {"dbname = 'it''s' and cpu>=+5", "DBNAME EQ 'it''s' AND CPU GE 5"},
      {"DBNAME EQ 007 OR CPU EQ '007'", "DBNAME EQ '007' OR CPU EQ 7"},
      {"(DBNAME LIKE 'a%' OR CPU < 1) AND STATUS <> ''", "(DBNAME LIKE 'a%' OR CPU LT 1) AND STATUS NE ''"},
      {"CPU = 1 OR (CPU = 2 AND CPU = 3)", "CPU EQ 1 OR CPU EQ 2 AND CPU EQ 3"},
      {"(CPU = 1 AND CPU = 2) AND ((CPU = 3))", "CPU EQ 1 AND CPU EQ 2 AND CPU EQ 3"},
      {"not (cpu = 1 and cpu = 2) or not not (cpu = 3)", "NOT (CPU EQ 1 AND CPU EQ 2) OR NOT NOT CPU EQ 3"},
      {"NOT (CPU = 1 OR NOT (CPU = 2 OR CPU = 3))", "NOT (CPU EQ 1 OR NOT (CPU EQ 2 OR CPU EQ 3))"}};
  for (const CanonicalCase& c : cases) {
    const SituationFilter filter = ParseOrDie(c.text);
    const std::string canonical = filter.ToString();
    EXPECT_EQ(canonical, c.canonical) << c.text;
    const SituationFilter again = ParseOrDie(canonical);
    EXPECT_EQ(again.ToString(), canonical);
    EXPECT_EQ(Described(again), Described(filter));
  }
}

}  // namespace
