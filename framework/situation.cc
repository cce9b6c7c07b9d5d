#include "framework/situation.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "framework/int32_text.h"
#include "framework/situation_lexer.h"

namespace framework {
namespace {

constexpr const char* kOperatorNames = "EQ NE GE LE LT GT LIKE";

std::string Upper(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return out;
}

int OperatorFromName(const std::string& upper) {
  for (int op : {kOpEQ, kOpNE, kOpGE, kOpLE, kOpLT, kOpGT, kOpLIKE})
    if (upper == CompareOpName(op)) return op;
  return 0;
}

bool IsSignedDigits(std::string_view text) {
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) text.remove_prefix(1);
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string Quoted(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out + "'";
}

}  // namespace

// Recursive descent over the token stream, one token of lookahead:
//   or      := and { OR and }
//   and     := unary { AND unary }
//   unary   := NOT unary | '(' or ')' | attribute operator value
// Each function returns the index of the node it built, or std::nullopt
// once *error holds the first problem found.
class FilterParser {
 public:
  using NodeKind = SituationFilter::NodeKind;

  FilterParser(std::string_view text, const AttributeKindLookup& lookup, std::string* error)
      : text_(text), lexer_(text), lookup_(lookup), error_(error) {}

  std::optional<SituationFilter> Run() {
    if (text_.size() > kMaxFilterLength)
      return Report("filter longer than " + std::to_string(kMaxFilterLength) + " characters");
    Advance();
    if (current_.kind == TokenKind::kEnd) return Report("empty filter");
    const std::optional<size_t> root = ParseOr();
    if (!root) return std::nullopt;
    if (current_.kind == TokenKind::kClose) return Fail("unbalanced parenthesis");
    if (current_.kind != TokenKind::kEnd) return Fail("expected AND or OR");
    filter_.root_ = *root;
    return std::move(filter_);
  }

 private:
  std::optional<size_t> ParseOr() { return ParseList(NodeKind::kOr, "OR", &FilterParser::ParseAnd); }
  std::optional<size_t> ParseAnd() { return ParseList(NodeKind::kAnd, "AND", &FilterParser::ParseUnary); }

  // Operands joined by `keyword`; a single operand stands for itself.
  std::optional<size_t> ParseList(NodeKind kind, const char* keyword,
                                  std::optional<size_t> (FilterParser::*operand)()) {
    std::vector<size_t> operands;
    do {
      if (!operands.empty()) {
        pending_logical_ = kind == NodeKind::kOr ? kLogicalOr : kLogicalAnd;
        Advance();
      }
      const std::optional<size_t> next = (this->*operand)();
      if (!next) return std::nullopt;
      operands.push_back(*next);
    } while (IsKeyword(keyword));
    if (operands.size() == 1) return operands.front();
    return AddNode(kind, std::move(operands));
  }

  std::optional<size_t> ParseUnary() {
    if (current_.kind == TokenKind::kOpen) return ParseParenthesised();
    if (!IsKeyword("NOT")) return ParseComparison();
    if (!Enter()) return std::nullopt;
    Advance();
    ++not_depth_;
    const std::optional<size_t> operand = ParseUnary();
    --not_depth_;
    --depth_;
    if (!operand) return std::nullopt;
    return AddNode(NodeKind::kNot, {*operand});
  }

  std::optional<size_t> ParseParenthesised() {
    const size_t open_column = current_.column;
    if (!Enter()) return std::nullopt;
    Advance();
    const std::optional<size_t> inner = ParseOr();
    if (!inner) return std::nullopt;
    if (current_.kind == TokenKind::kEnd) return FailAt(open_column, "unbalanced parenthesis");
    if (current_.kind != TokenKind::kClose) return Fail("expected AND, OR or ')'");
    Advance();
    --depth_;
    return inner;
  }

  std::optional<size_t> ParseComparison() {
    if (current_.kind != TokenKind::kWord || IsKeyword("AND") || IsKeyword("OR"))
      return Fail("expected an attribute name");
    std::string attribute = Upper(current_.text);
    const std::optional<AttributeKind> kind = lookup_ ? lookup_(attribute) : std::nullopt;
    if (!kind) return Fail("unknown attribute '" + Printable(current_.text) + "'");
    Advance();
    const std::optional<int> op = ParseOperator(attribute, *kind);
    if (!op) return std::nullopt;
    std::optional<std::string> value = ParseValue(attribute, *kind);
    if (!value) return std::nullopt;
    filter_.elements_.push_back(FilterElement{std::move(attribute), *op, std::move(*value), *kind,
                                              pending_logical_, not_depth_ % 2 == 1});
    pending_logical_ = kLogicalNone;
    return AddNode(NodeKind::kCompare, {}, filter_.elements_.size() - 1);
  }

  std::optional<int> ParseOperator(const std::string& attribute, AttributeKind kind) {
    int op = 0;
    if (current_.kind == TokenKind::kOperator) {
      op = current_.op;
    } else if (current_.kind == TokenKind::kWord) {
      op = OperatorFromName(Upper(current_.text));
      if (op == 0)
        return Fail("unknown operator '" + Printable(current_.text) + "'",
                    std::string("expected ") + kOperatorNames);
    } else {
      return Fail("expected an operator", kOperatorNames);
    }
    if (op == kOpLIKE && kind == AttributeKind::kInteger)
      return Fail("LIKE does not apply to integer attribute " + attribute);
    Advance();
    return op;
  }

  // The value as elements carry it: text as written, integers in plain decimal.
  std::optional<std::string> ParseValue(const std::string& attribute, AttributeKind kind) {
    if (current_.kind != TokenKind::kText && current_.kind != TokenKind::kNumber)
      return Fail("expected a value",
                  current_.kind == TokenKind::kWord ? "text values go in single quotes" : "");
    const Token value = current_;
    Advance();
    if (kind == AttributeKind::kText) return value.text;
    const std::optional<int32_t> number = ParseInt32(value.text);
    if (number) return std::to_string(*number);
    const char* problem = IsSignedDigits(value.text) ? "does not fit in 32 bits" : "is not a number";
    return FailAt(value.column,
                  "'" + Printable(value.text) + "' " + problem + " for integer attribute " + attribute);
  }

  // Steps into a parenthesis or NOT, refusing to go deeper than allowed.
  bool Enter() {
    if (depth_ == kMaxFilterNesting) {
      Fail("nesting deeper than " + std::to_string(kMaxFilterNesting) + " levels");
      return false;
    }
    ++depth_;
    return true;
  }

  size_t AddNode(NodeKind kind, std::vector<size_t> children, size_t element = 0) {
    filter_.nodes_.push_back(SituationFilter::Node{kind, element, std::move(children)});
    return filter_.nodes_.size() - 1;
  }

  void Advance() { current_ = lexer_.Next(); }
  bool IsKeyword(const char* keyword) const {
    return current_.kind == TokenKind::kWord && Upper(current_.text) == keyword;
  }

  // A problem at the current token; a token the lexer could not read is the problem itself.
  std::nullopt_t Fail(const std::string& what, const std::string& hint = "") {
    if (current_.kind == TokenKind::kError) return FailAt(current_.column, current_.text);
    return FailAt(current_.column, what, hint);
  }

  std::nullopt_t FailAt(size_t column, const std::string& what, const std::string& hint = "") {
    return Report(what + " at column " + std::to_string(column) + (hint.empty() ? "" : " (" + hint + ")"));
  }

  std::nullopt_t Report(const std::string& message) {
    if (error_ != nullptr) *error_ = message;
    return std::nullopt;
  }

  std::string_view text_;
  FilterLexer lexer_;
  const AttributeKindLookup& lookup_;
  std::string* error_;
  Token current_;
  int depth_ = 0;
  int not_depth_ = 0;
  int pending_logical_ = kLogicalNone;  // the connective met since the last comparison
  SituationFilter filter_;
};

std::optional<SituationFilter> SituationFilter::Parse(std::string_view text,
                                                      const AttributeKindLookup& lookup, std::string* error) {
  return FilterParser(text, lookup, error).Run();
}

bool SituationFilter::Evaluate(const std::function<int(const FilterElement&)>& test) const {
  return EvaluateNode(root_, test);
}

bool SituationFilter::EvaluateNode(size_t index, const std::function<int(const FilterElement&)>& test) const {
  const Node& node = nodes_[index];
  const auto holds = [&](size_t child) { return EvaluateNode(child, test); };
  switch (node.kind) {
    case NodeKind::kCompare: return test(elements_[node.element]) != 0;
    case NodeKind::kNot: return !holds(node.children.front());
    case NodeKind::kAnd: return std::all_of(node.children.begin(), node.children.end(), holds);
    case NodeKind::kOr: return std::any_of(node.children.begin(), node.children.end(), holds);
  }
  return false;
}

std::string SituationFilter::ToString() const {
  std::string out;
  AppendNode(root_, NodeKind::kOr, &out);
  return out;
}

void SituationFilter::AppendNode(size_t index, NodeKind parent, std::string* out) const {
  const Node& node = nodes_[index];
  const bool parenthesised = node.kind < parent;
  if (parenthesised) *out += '(';
  switch (node.kind) {
    case NodeKind::kCompare: AppendElement(node.element, out); break;
    case NodeKind::kNot:
      *out += "NOT ";
      AppendNode(node.children.front(), node.kind, out);
      break;
    case NodeKind::kAnd:
    case NodeKind::kOr:
      for (size_t i = 0; i < node.children.size(); ++i) {
        if (i > 0) *out += node.kind == NodeKind::kAnd ? " AND " : " OR ";
        AppendNode(node.children[i], node.kind, out);
      }
      break;
  }
  if (parenthesised) *out += ')';
}

void SituationFilter::AppendElement(size_t index, std::string* out) const {
  const FilterElement& element = elements_[index];
  *out += element.attribute;
  *out += ' ';
  *out += CompareOpName(element.op);
  *out += ' ';
  *out += element.kind == AttributeKind::kInteger ? element.value : Quoted(element.value);
}

}  // namespace framework
