// Every setting the programs of an instance read, with its default, the
// values it admits and what it means: what `kzqagent --check-config`
// reports on, what the example configuration file lists, and what a
// configuration file may name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kzq {

enum class SettingKind {
  kText,    // any text
  kSecret,  // any text, never shown
  kOption,  // on unless empty or 0
  kNumber,  // a whole number from `low` to `high`
  kChoice,  // one of the words in `choices`, separated by '|'
  kListen,  // host:port, [v6]:port or off
};

struct SettingSpec {
  const char* name;
  SettingKind kind;
  const char* default_text;  // as the README states it; "" for none
  const char* meaning;
  int64_t low = 0;
  int64_t high = 0;
  const char* choices = "";
  bool reloadable = false;  // takes a new value on a reload, without a restart
};

// In the order the README's tables give them.
const std::vector<SettingSpec>& SettingList();

// The spec of `name` (exact), or null.
const SettingSpec* FindSetting(const std::string& name);

// Why `value` is not valid for `spec`; empty when it is.
std::string SettingProblem(const SettingSpec& spec, const std::string& value);

// `value` as it may be shown: a secret is "***".
std::string ShownValue(const SettingSpec& spec, const std::string& value);

}  // namespace kzq
