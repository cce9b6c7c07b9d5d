#include "framework/situation_lexer.h"

#include <cstdio>

#include "framework/situation.h"

namespace framework {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsWordStart(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool IsWordPart(char c) { return IsWordStart(c) || IsDigit(c); }

Token Make(TokenKind kind, std::string text, size_t start, int op = 0) {
  return Token{kind, std::move(text), op, start + 1};
}

}  // namespace

Token FilterLexer::Next() {
  while (position_ < text_.size() && IsBlank(text_[position_])) ++position_;
  const size_t start = position_;
  if (start == text_.size()) return Make(TokenKind::kEnd, "", start);
  const char c = text_[start];
  if (c == '(' || c == ')') {
    ++position_;
    return Make(c == '(' ? TokenKind::kOpen : TokenKind::kClose, std::string(1, c), start);
  }
  if (c == '\'') return ReadText(start);
  if (IsDigit(c) || ((c == '+' || c == '-') && start + 1 < text_.size() && IsDigit(text_[start + 1])))
    return ReadNumber(start);
  if (IsWordStart(c)) return ReadWord(start);
  return ReadOperator(start);
}

Token FilterLexer::ReadText(size_t start) {
  std::string value;
  size_t p = start + 1;
  for (;;) {
    if (p >= text_.size()) {
      position_ = text_.size();
      return Make(TokenKind::kError, "unterminated text", start);
    }
    if (text_[p] == '\0') {
      position_ = text_.size();
      return Make(TokenKind::kError, "NUL character in text", p);
    }
    if (text_[p] == '\'') {
      if (!At(p + 1, '\'')) break;
      ++p;  // '' is one quote
    }
    value += text_[p++];
  }
  position_ = p + 1;
  return Make(TokenKind::kText, std::move(value), start);
}

Token FilterLexer::ReadNumber(size_t start) {
  size_t p = start + 1;
  while (p < text_.size() && IsDigit(text_[p])) ++p;
  if (p < text_.size() && IsWordPart(text_[p])) {
    while (p < text_.size() && IsWordPart(text_[p])) ++p;
    position_ = text_.size();
    return Make(TokenKind::kError, "malformed number '" + Printable(text_.substr(start, p - start)) + "'",
                start);
  }
  position_ = p;
  return Make(TokenKind::kNumber, std::string(text_.substr(start, p - start)), start);
}

Token FilterLexer::ReadWord(size_t start) {
  size_t p = start + 1;
  while (p < text_.size() && IsWordPart(text_[p])) ++p;
  position_ = p;
  return Make(TokenKind::kWord, std::string(text_.substr(start, p - start)), start);
}

Token FilterLexer::ReadOperator(size_t start) {
  const char c = text_[start];
  int op = 0;
  size_t length = 1;
  if (c == '=') {
    op = kOpEQ;
  } else if (c == '!' && At(start + 1, '=')) {
    op = kOpNE;
    length = 2;
  } else if (c == '<') {
    op = At(start + 1, '>') ? kOpNE : (At(start + 1, '=') ? kOpLE : kOpLT);
    length = op == kOpLT ? 1 : 2;
  } else if (c == '>') {
    op = At(start + 1, '=') ? kOpGE : kOpGT;
    length = op == kOpGT ? 1 : 2;
  } else {
    position_ = text_.size();
    return Make(TokenKind::kError, "unexpected character '" + Printable(text_.substr(start, 1)) + "'", start);
  }
  position_ = start + length;
  return Make(TokenKind::kOperator, std::string(text_.substr(start, length)), start, op);
}

std::string Printable(std::string_view text, size_t limit) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (i == limit) return out + "...";
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f) {
      char hex[8];
      snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned>(c));
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

}  // namespace framework
