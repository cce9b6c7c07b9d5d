#include "kzq/registry_environment.h"

#include <cstring>
#include <string>
#include <vector>

#include "framework/bsv1.h"
#include "framework/trace.h"
#include "kvc/kvcutil.h"
#include "platform/environment.h"
#include "registry/earegcls.h"

namespace kzq {
namespace {

constexpr uint32_t kNameBuffer = 128;
constexpr uint32_t kDataBuffer = 2048;
constexpr uint32_t kPathBuffer = 512;
// An environment variable holds at most 32767 characters on Windows.
constexpr uint32_t kMaxValueBytes = 32768;

// A value longer than the enumeration's buffer is read whole by its name;
// false, with the reason logged, when it cannot be had.
bool ReadLongValue(CRegistry& registry, const char* name, uint32_t size, uint32_t* type, std::string* text) {
  std::vector<char> whole(static_cast<size_t>(size) + 1, '\0');
  uint32_t whole_size = size;
  if (size > kMaxValueBytes || registry.GetValue(name, whole.data(), type, &whole_size) != 0) {
    kvc::Log('w', "reg0020", "Registry value %s (%u bytes) could not be read; the values after it are still read\n",
             name, static_cast<unsigned>(size));
    return false;
  }
  *text = whole.data();
  return true;
}

void ExportEnvironmentValues(CRegistry& registry) {
  char name[kNameBuffer];
  char data[kDataBuffer];
  uint32_t index = 0;
  for (;;) {
    uint32_t name_size = kNameBuffer;
    uint32_t data_size = kDataBuffer;
    uint32_t type = 0;
    const uint32_t rc = registry.EnumVals(name, &name_size, data, &data_size, &type, &index, false);
    std::string text;
    if (rc == CRegistry::kBufferTooSmall) {
      if (!ReadLongValue(registry, name, data_size, &type, &text)) continue;
    } else if (rc != 0) {
      break;
    } else {
      data[kDataBuffer - 1] = '\0';
      text = data;
    }
    if (type != platform::kRegSz && type != platform::kRegExpandSz) continue;
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
