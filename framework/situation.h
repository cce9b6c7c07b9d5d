// Situation filters: the boolean combination of attribute comparisons a
// consumer attaches to a table request, evaluated row by row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace framework {

// Comparison codes; 7, 8 and 9 are the connectives OR, AND and NOT in the
// same code space, which is why LIKE is 10.
enum CompareOp : int { kOpEQ = 1, kOpNE, kOpGE, kOpLE, kOpLT, kOpGT, kOpLIKE = 10 };
enum LogicalOp : int { kLogicalNone = 0, kLogicalOr = 7, kLogicalAnd = 8, kLogicalNot = 9 };

// "EQ", "NE", "GE", "LE", "LT", "GT", "LIKE"; "?" for anything else.
const char* CompareOpName(int op);

// The comparisons a table's attribute test hands back: 1 when
// `field <op> value` holds, else 0 (also for an unknown op).
//
// Text form: `field` is a fixed-width field of `width` bytes, not
// terminated; its value ends at the first NUL, and trailing blanks are not
// part of it (nor of `value`, which is blank-padded text too). EQ NE GE LE
// LT GT compare bytewise (like strcmp); LIKE matches `value` as a pattern
// over the whole field, case-sensitive, where '%' matches any run of bytes
// (also none) and '_' exactly one byte. A null field or value reads as
// empty.
int IsException(int op, const char* field, const char* value, int width);

// Integer form: `value` is the comparison value as decimal text with an
// optional sign. LIKE, a null value and a value that is not a 32-bit
// integer give 0.
int IsException(int op, int32_t field, const char* value);

enum class AttributeKind { kText, kInteger };

// One comparison, as tables receive it.
struct FilterElement {
  std::string attribute;  // upper-case attribute name
  int op;                 // CompareOp
  std::string value;      // comparison value as text, quotes removed; integers in plain decimal
  AttributeKind kind;
  int logical_op;         // the connective written before it: kLogicalNone, kLogicalOr or kLogicalAnd
  bool negated;           // under an odd number of NOTs
};

// Tells the parser whether an upper-case attribute exists and its kind.
using AttributeKindLookup = std::function<std::optional<AttributeKind>(std::string_view)>;

// Bounds on filter text, so hostile input cannot exhaust time or stack.
inline constexpr size_t kMaxFilterLength = 4096;  // characters of text
inline constexpr int kMaxFilterNesting = 64;      // parentheses and NOTs inside one another

class SituationFilter {
 public:
  // Parses `text`, for example
  //   DBNAME EQ 'master' AND PCTDBFREE LT 10
  //   NOT (STATUS = 'sleeping' OR CPU > 100)
  // Keywords, operators and attribute names are case-insensitive; NOT
  // binds before AND before OR. Operators: EQ NE GE LE LT GT LIKE and
  // = != <> >= <= < >. Text values are single-quoted, '' standing for one
  // quote; integers are bare decimals (a quoted valid integer is accepted,
  // and a bare number for a text attribute stands for its text). LIKE
  // applies to text attributes only. On failure returns std::nullopt with
  // a one-line message naming the problem and its 1-based column in
  // *error, e.g. "unknown attribute 'DBNAM' at column 1". Pure: no I/O.
  static std::optional<SituationFilter> Parse(std::string_view text, const AttributeKindLookup& lookup,
                                              std::string* error);

  // Evaluates the filter for one row; `test` answers one comparison
  // (non-zero = holds). Stops asking once the outcome is settled.
  bool Evaluate(const std::function<int(const FilterElement&)>& test) const;

  // The comparisons in the order they appear in the text.
  const std::vector<FilterElement>& Elements() const { return elements_; }

  // Canonical text: upper-case names, keyword operators, only the
  // parentheses precedence needs. Parses back to the same filter, provided
  // it stays within kMaxFilterLength.
  std::string ToString() const;

 private:
  friend class FilterParser;

  // Ordered from loosest to tightest binding.
  enum class NodeKind { kOr, kAnd, kNot, kCompare };
  struct Node {
    NodeKind kind;
    size_t element = 0;            // kCompare: index into elements_
    std::vector<size_t> children;  // kNot: one; kAnd, kOr: two or more
  };

  SituationFilter() = default;  // only the parser makes filters

  bool EvaluateNode(size_t node, const std::function<int(const FilterElement&)>& test) const;
  // Appends `node`, in parentheses when it binds looser than its `parent`.
  void AppendNode(size_t node, NodeKind parent, std::string* out) const;
  void AppendElement(size_t element, std::string* out) const;

  std::vector<FilterElement> elements_;
  std::vector<Node> nodes_;
  size_t root_ = 0;
};

}  // namespace framework
