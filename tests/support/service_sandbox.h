// A runtime directory and a cgroup tree of the test's own, where the
// service probe looks for pid files and units on POSIX; the unit map starts
// unset, so the default one applies.
#pragma once

#include <filesystem>
#include <string>

#include "platform/environment.h"
#include "platform/service_probe.h"
#include "tests/support/temp_dir.h"

namespace kzq_test {

class ServiceSandbox {
 public:
  ServiceSandbox() {
    platform::SetEnv("KZQ_RUNTIME_DIR", runtime_.Path());
    platform::SetEnv("KZQ_CGROUP_ROOT", cgroups_.Path());
    platform::SetEnv("KZQ_SERVICE_UNITS", "");
  }
  ~ServiceSandbox() {
    for (const char* name : {"KZQ_RUNTIME_DIR", "KZQ_CGROUP_ROOT", "KZQ_SERVICE_UNITS"}) platform::SetEnv(name, "");
  }

  std::string PidFile(const std::string& service) const { return platform::PidFilePath(service); }
  void WritePidFile(const std::string& service, const std::string& text) const { WriteFile(PidFile(service), text); }

  // The unit's cgroup below `hierarchy`, its cgroup.procs holding `procs`;
  // returns the cgroup's directory.
  std::string AddUnit(const std::string& unit, const std::string& procs,
                      const std::string& hierarchy = "system.slice") const {
    const std::filesystem::path dir = std::filesystem::path(cgroups_.Path()) / hierarchy / (unit + ".service");
    std::filesystem::create_directories(dir);
    WriteFile((dir / "cgroup.procs").string(), procs);
    return dir.string();
  }

 private:
  TempDir runtime_;
  TempDir cgroups_;
};

}  // namespace kzq_test
