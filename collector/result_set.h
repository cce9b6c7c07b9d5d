// One query's result as the client library gave it: column names, and per
// row one cell per column. Kept apart from the client so recorded result
// sets go through the same packing as live ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace collector {

// What a cell holds; decided by the column's SQL type.
enum class CellKind {
  kNull,     // SQL NULL
  kInteger,  // tinyint ... bigint, bit
  kReal,     // decimal, numeric, float, real, money
  kText,     // every other type, as UTF-8
  kTime,     // date, datetime, datetime2, smalldatetime, datetimeoffset
};

struct Cell {
  CellKind kind = CellKind::kNull;
  int64_t integer = 0;
  double real = 0;
  std::string text;
  platform::LocalTime time;  // the server's own clock reading, as returned
};

struct ResultSet {
  std::vector<std::string> columns;
  std::vector<std::vector<Cell>> rows;
};

}  // namespace collector
