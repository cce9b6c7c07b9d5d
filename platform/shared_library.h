// Libraries loaded into the process at run time.
#pragma once

#include <memory>
#include <string>

namespace platform {

class SharedLibrary {
 public:
  virtual ~SharedLibrary() = default;
  // The address of an exported entry, or null when it has none by that name.
  virtual void* Entry(const char* name) const = 0;
};

// Loads the library of a base name the platform's way: "kzqsqld" is
// kzqsqld.dll in the executable's own directory on Windows, by full path
// (never found through PATH or the working directory), and
// dlopen("libkzqsqld.so") on POSIX (LD_LIBRARY_PATH, the run path, then the
// system's library directories). Null when it
// cannot be loaded; the library stays loaded while the object lives.
std::unique_ptr<SharedLibrary> LoadSharedLibrary(const std::string& base_name);

}  // namespace platform
