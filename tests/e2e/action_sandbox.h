// The settings the take-action tests of one binary share. The agent's
// configuration reads them once per process, so they are set once, before
// the first test uses them, and never changed.
#pragma once

#include <string>

#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

struct ActionSandbox {
  std::string home;       // COLL_HOME
  std::string bin;        // COLL_BINPATH: the test commands and kyresql.cmd
  std::string path_dir;   // first on PATH: another "whereami"
  std::string build_dir;  // where the test binaries live

  // Where u_exec keeps its files for this agent: <home>/tmp/kzq/<server id>.
  std::string TempDirectory() const {
    const char sep = platform::PathSeparator();
    return home + sep + "tmp" + sep + "kzq" + sep + platform::GetEnv("COLL_SERVERID").value_or("");
  }
};

inline const ActionSandbox& TheActionSandbox() {
  static const ActionSandbox sandbox = [] {
    static TempDir home;
    const std::string self = platform::ExecutablePath();
    const char sep = platform::PathSeparator();
    ActionSandbox s;
    s.build_dir = self.substr(0, self.find_last_of("\\/"));
    s.home = home.Path();
    s.bin = s.build_dir + sep + "action_bin" + sep + "bin";
    s.path_dir = s.build_dir + sep + "action_bin" + sep + "path";
    platform::SetEnv("COLL_HOME", s.home);
    platform::SetEnv("COLL_PREFIX", "kzq");
    platform::SetEnv("COLL_BINPATH", s.bin);
    platform::SetEnv("COLL_HOSTNAME", "dbhost");
    platform::SetEnv("COLL_TMPFILE_DEL_INTERVAL", "");
    platform::SetEnv("KZQ_SQLCMD", "");
    platform::SetEnv("PATH", s.path_dir + platform::PathListSeparator() + platform::GetEnv("PATH").value_or(""));
    return s;
  }();
  return sandbox;
}

}  // namespace kzq_test
