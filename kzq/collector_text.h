// The collector's texts travel in the server's code page (COLL_CODEPAGE,
// 1252 when unset, as SQL Server's non-Unicode columns are); consumers read
// UTF-8. The collector encodes what it sends, the agent decodes what it
// receives, both by the same setting.
#pragma once

#include <memory>
#include <string>

#include "kzq/catalogue.h"
#include "platform/text.h"

namespace kzq {

inline constexpr int kDefaultCodePage = 1252;
inline constexpr int kUtf8CodePage = 65001;

// COLL_CODEPAGE as a number this system knows; a value that is not one is
// logged (KZQ2320E, once per value) and 1252 used instead.
int CollectorCodePage();

// One sample's or one replay file's conversions; the code page is opened
// only when a text needs it. One thread at a time.
class CollectorText {
 public:
  explicit CollectorText(int code_page);

  // Rewrites the collector's text fields of a whole row of `spec` into UTF-8
  // in place. Plain ASCII and fields without a value (0xFF) stay as they
  // are; a text that grows past its width is cut at a character boundary
  // and padded as it was (blanks, or zeros after a terminated text).
  void DecodeRow(const TableSpec& spec, unsigned char* row);
  // UTF-8 as the collector sends it: characters the code page lacks
  // become '?'.
  std::string Encode(const std::string& utf8);

 private:
  void DecodeField(unsigned char* field, int width);
  platform::CodePage* Converter();

  const int code_page_;
  std::unique_ptr<platform::CodePage> converter_;
};

}  // namespace kzq
