// The one place where errno values become the layer's Windows numbers.
#pragma once

namespace platform::posix {

int FromErrno(int err);

// Names of shared objects may hold characters that POSIX object names
// cannot; this gives the "/name" form with '/' and '\' replaced by '_'.
const char* ObjectName(const char* name, char (&buffer)[256]);

}  // namespace platform::posix
