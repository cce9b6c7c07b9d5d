// Copies the Environment values of the agent's registry key and of each
// key above it, up to the maker's root, into the process environment.
#pragma once

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

}  // namespace kzq
