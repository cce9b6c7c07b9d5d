// Splits situation filter text into tokens, one at a time, left to right.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace framework {

enum class TokenKind {
  kWord,      // letters, digits and '_', starting with a letter or '_'
  kNumber,    // optional sign and digits
  kText,      // single-quoted text; `text` holds it with '' turned into '
  kOperator,  // = != <> >= <= < >; `op` holds the CompareOp
  kOpen,      // (
  kClose,     // )
  kEnd,       // no more text
  kError,     // `text` holds the message, without its column
};

struct Token {
  TokenKind kind = TokenKind::kEnd;
  std::string text;  // as written, except for kText and kError
  int op = 0;
  size_t column = 0;  // 1-based
};

class FilterLexer {
 public:
  explicit FilterLexer(std::string_view text) : text_(text) {}

  // The next token; kEnd (repeatedly) after the last one.
  Token Next();

 private:
  Token ReadText(size_t start);
  Token ReadNumber(size_t start);
  Token ReadWord(size_t start);
  Token ReadOperator(size_t start);
  bool At(size_t position, char c) const { return position < text_.size() && text_[position] == c; }

  std::string_view text_;
  size_t position_ = 0;
};

// `text` made safe for a one-line message: control bytes as \xNN, cut
// after `limit` characters with "...".
std::string Printable(std::string_view text, size_t limit = 40);

}  // namespace framework
