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
void ReadEnvironmentValues(CRegistry& registry, const std::string& key, std::vector<RegistryValue>* values) {
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
    values->push_back({name, text, type == platform::kRegExpandSz, key});
  }
}

std::string CurrentKey(CRegistry& registry) {
  char path[kPathBuffer] = "";
  uint32_t path_size = kPathBuffer;
  registry.QueryKey(path, &path_size, nullptr, nullptr);
  return path;
}

}  // namespace

std::string RegistryValue::Value() const { return expand ? platform::ExpandEnvironmentText(text) : text; }

std::vector<RegistryValue> ReadRegistryEnvironment(const char* key_path) {
  std::vector<RegistryValue> values;
  CRegistry registry(nullptr, platform::kLocalMachine, nullptr, false);
  if (key_path == nullptr || registry.Position(key_path, false) != 0) return values;
  std::string current = key_path;
  for (int levels = kMaxKeyLevels; current != kMakerRoot && levels > 0; --levels) {
    if (registry.Position("Environment", false) == 0) {
      ReadEnvironmentValues(registry, CurrentKey(registry), &values);
      registry.Position("..", false);
    }
    if (registry.Position("..", false) != 0) break;
    current = CurrentKey(registry);
  }
  return values;
}

void ImportRegistryEnvironment(const char* key_path) {
  for (const RegistryValue& v : ReadRegistryEnvironment(key_path)) {
    // Expanded one by one: a value may name one put before it.
    const std::string pair = v.name + "=" + v.Value();
    if (framework::TraceLevel() & framework::kTraceFlow) TRC1_Printf("Setting environment variable %s", pair.c_str());
    BSV1_PutEnv(pair.c_str());
  }
}

}  // namespace kzq
