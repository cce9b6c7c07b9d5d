// The terminal a program writes to.
#pragma once

#include <optional>

namespace platform {

// How many characters wide the terminal behind standard output is; nothing
// when standard output is not a terminal (a pipe, a file) or the system
// will not say.
std::optional<int> TerminalColumns();

}  // namespace platform
