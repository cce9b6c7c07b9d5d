#include "kzq/registry_environment.h"

#include <cstring>
#include <string>
#include <vector>

#include "framework/bsv1.h"
#include "framework/trace.h"
#include "kvc/diagnostic_log.h"
#include "platform/environment.h"
#include "registry/registry_position.h"

namespace kzq {
namespace {

constexpr uint32_t kNameBuffer = 128;
// An environment variable holds at most 32767 characters on Windows.
constexpr uint32_t kDataBuffer = 32768;
constexpr uint32_t kPathBuffer = 512;

// The buffer holds the longest value an environment variable can take, so
// that a long value neither ends the import nor is cut; a value longer
// still is skipped with a logged reason, and the values after it are read.
void ExportEnvironmentValues(CRegistry& registry) {
  char name[kNameBuffer];
  std::vector<char> data(kDataBuffer);
  uint32_t index = 0;
  for (;;) {
    uint32_t name_size = kNameBuffer;
    uint32_t data_size = kDataBuffer;
    uint32_t type = 0;
    const uint32_t rc = registry.EnumVals(name, &name_size, data.data(), &data_size, &type, &index, false);
    if (rc == CRegistry::kBufferTooSmall) {
      kvc::Log('w', "reg0020", "Registry value %u of the Environment key is longer than %u bytes and is skipped\n",
               static_cast<unsigned>(index), static_cast<unsigned>(kDataBuffer));
      continue;
    }
    if (rc != 0) break;
    if (type != platform::kRegSz && type != platform::kRegExpandSz) continue;
    data[kDataBuffer - 1] = '\0';
    const std::string text = data.data();
    const std::string value = type == platform::kRegExpandSz ? platform::ExpandEnvironmentText(text) : text;
    const std::string pair = std::string(name) + "=" + value;
    if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("Setting environment variable %s", pair.c_str());
    BSV1_PutEnv(pair.c_str());
  }
}

}  // namespace

void ImportRegistryEnvironment(const char* key_path) {
  CRegistry registry(nullptr, platform::kLocalMachine, nullptr, false);
  if (key_path == nullptr || registry.Position(key_path, false) != 0) return;
  std::string current = key_path;
  for (int levels = kMaxKeyLevels; current != kMakerRoot && levels > 0; --levels) {
    if (registry.Position("Environment", false) == 0) {
      ExportEnvironmentValues(registry);
      registry.Position("..", false);
    }
    if (registry.Position("..", false) != 0) return;
    char path[kPathBuffer] = "";
    uint32_t path_size = kPathBuffer;
    registry.QueryKey(path, &path_size, nullptr, nullptr);
    current = path;
  }
}

}  // namespace kzq
