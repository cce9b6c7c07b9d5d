// A row source that replays rows from files: one file per table, named
// after the table (kzqdbd.jsonl), one JSON object per line mapping
// attribute names to values:
//   {"SERVERID": "SQL1", "HOSTNAME": "db01", "DBNAME": "master", "DBSIZE": 512}
// Names are matched without regard to case. Texts are sent in the server's
// code page (what a file holds is UTF-8) and blank-padded to their width,
// which counts the code page's bytes; integers are 32-bit; attributes a line leaves out are
// blank or 0, and null sends the attribute without a value (0xFF). Blank lines and lines starting with '#' are skipped. Every
// problem (bad JSON, an unknown attribute, one the agent fills itself, a
// text too long, a number out of range, a value of the wrong type) stops
// the load with a message naming the file and line.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "collector/row_source.h"
#include "kzq/collector_text.h"

namespace collector {

class ReplaySource final : public RowSource {
 public:
  // Loads every "<table>.jsonl" of the directory, texts encoded in
  // `code_page`; null with *error set on the first problem.
  static std::unique_ptr<ReplaySource> Load(const std::string& directory, int code_page, std::string* error);

  // Packs the rows of one file's text; false with *error ("<name>:<line>:
  // ...") on the first problem. Kept apart from file reading so fixtures
  // and fuzzers can drive it.
  static bool ParseRows(const kzq::TableSpec& table, std::string_view text, const std::string& name, int code_page,
                        std::string* rows, int32_t* count, std::string* error);

  int32_t Rows(const kzq::TableSpec& table, const std::string& statement, std::string* bytes) override;

 private:
  struct TableRows {
    std::string bytes;
    int32_t count = 0;
  };
  std::map<std::string, TableRows> tables_;  // by table name
};

}  // namespace collector
