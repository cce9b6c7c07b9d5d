#include "platform/terminal.h"

#include <windows.h>

namespace platform {

std::optional<int> TerminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info{};
  // Fails when standard output is redirected away from a console.
  if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info)) return std::nullopt;
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  if (columns <= 0) return std::nullopt;
  return columns;
}

}  // namespace platform
