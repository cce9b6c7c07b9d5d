// Copies the Environment values of the agent's registry key and of each
// key above it, up to the maker's root, into the process environment.
#pragma once

#include <string>
#include <vector>

namespace kzq {

// The maker's root key below HKEY_LOCAL_MACHINE; its own Environment is
// not read.
inline constexpr const char* kMakerRoot = "SOFTWARE\\Orvane";
inline constexpr int kMaxKeyLevels = 100;

// `key_path` is below HKEY_LOCAL_MACHINE, without a leading backslash. The
// most specific key's values are put first, then each ancestor's; a later
// put replaces an earlier one, so an ancestor's value of the same name
// wins. A key that cannot be opened ends the import without a message.
void ImportRegistryEnvironment(const char* key_path);

struct RegistryValue {
  std::string name;
  std::string text;
  bool expand = false;  // REG_EXPAND_SZ: %NAME% is replaced when the value is put
  std::string key;      // the key holding the Environment values, as the registry names it

  // The text, expanded against the environment as it is now.
  std::string Value() const;
};

// The values ImportRegistryEnvironment puts, in the order it puts them,
// without putting them.
std::vector<RegistryValue> ReadRegistryEnvironment(const char* key_path);

}  // namespace kzq
