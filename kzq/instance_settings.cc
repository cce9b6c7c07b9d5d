#include "kzq/instance_settings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "kvc/diagnostic_log.h"
#include "kzq/instance_start.h"
#include "kzq/setting_list.h"
#include "platform/environment.h"
#include "platform/file_system.h"

namespace kzq {
namespace {

constexpr const char* kBlanks = " \t\r";

std::string Trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// Parses one line into *setting; "" when it holds a setting or nothing,
// else the problem.
std::string ParseLine(const std::string& raw, FileSetting* setting) {
  const std::string line = Trim(raw);
  if (line.empty() || line[0] == '#') return "";
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return "not NAME=value";
  setting->name = Trim(line.substr(0, equals));
  std::string value = Trim(line.substr(equals + 1));
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
  else if (!value.empty() && value.front() == '"') return "the value's closing quote is missing";
  setting->value = value;
  if (setting->name.empty()) return "no name before '='";
  if (FindSetting(setting->name) == nullptr) return "unknown setting '" + setting->name + "'";
  return "";
}

std::string Lookup(const std::map<std::string, std::string>& values, const std::string& name, bool* found) {
  const auto it = values.find(name);
  *found = it != values.end();
  return *found ? it->second : "";
}

}  // namespace

ConfigFile ReadConfigFile(const std::string& path) {
  ConfigFile file;
  file.path = path;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (errno != ENOENT) file.problems.push_back(path + ": cannot be read: " + strerror(errno));
    return file;
  }
  file.found = true;
  std::string raw;
  for (int number = 1; std::getline(in, raw); ++number) {
    FileSetting setting;
    setting.line = number;
    const std::string problem = ParseLine(raw, &setting);
    if (!problem.empty()) file.problems.push_back(path + ":" + std::to_string(number) + ": " + problem);
    else if (!setting.name.empty()) file.settings.push_back(setting);
  }
  return file;
}

std::string DefaultConfigFile(const std::string& server_id) {
  if (server_id.empty()) return "";
  return platform::MachineSettingsRoot() + platform::PathSeparator() + "kzq" + platform::PathSeparator() + server_id +
         ".conf";
}

std::string RegistryKeyArgument(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i)
    if (SameWord(argv[i], "-hkey")) return argv[i + 1];
  return "";
}

InstanceSettings::InstanceSettings(std::string registry_key, std::map<std::string, std::string> presets)
    : key_(std::move(registry_key)), command_line_(std::move(presets)) {
  for (const SettingSpec& spec : SettingList()) {
    const auto value = platform::GetEnv(spec.name);
    if (value.has_value() && command_line_.count(spec.name) == 0) environment_[spec.name] = *value;
  }
  ReadFileAndRegistry();
  // The file fills in what nothing above it gives; the registry's values
  // are put last, so that they win as they always have.
  for (const FileSetting& setting : file_.settings)
    if (!platform::GetEnv(setting.name.c_str()).has_value()) platform::SetEnv(setting.name.c_str(), setting.value);
  if (!key_.empty()) ImportRegistryEnvironment(key_.c_str());
}

void InstanceSettings::Reread() { ReadFileAndRegistry(); }

void InstanceSettings::ReadFileAndRegistry() {
  registry_ = key_.empty() ? std::vector<RegistryValue>{} : ReadRegistryEnvironment(key_.c_str());
  std::string path;
  if (Source("KZQ_CONFIG_FILE", &path) == "default") {
    std::string server_id;
    Source("COLL_SERVERID", &server_id);
    path = DefaultConfigFile(server_id);
  }
  file_ = path.empty() ? ConfigFile{} : ReadConfigFile(path);
}

std::string InstanceSettings::Source(const std::string& name, std::string* value) const {
  // The registry's last value of a name wins, as its import puts them in order.
  for (auto it = registry_.rbegin(); it != registry_.rend(); ++it)
    if (it->name == name) return *value = it->Value(), "registry " + it->key;
  bool found = false;
  *value = Lookup(command_line_, name, &found);
  if (found) return "command line";
  *value = Lookup(environment_, name, &found);
  if (found) return "environment";
  for (auto it = file_.settings.rbegin(); it != file_.settings.rend(); ++it)
    if (it->name == name) return *value = it->value, "file " + file_.path + ":" + std::to_string(it->line);
  value->clear();
  return "default";
}

std::vector<EffectiveSetting> InstanceSettings::Effective() const {
  std::vector<EffectiveSetting> settings;
  for (const SettingSpec& spec : SettingList()) {
    EffectiveSetting setting;
    setting.name = spec.name;
    setting.source = Source(spec.name, &setting.value);
    setting.problem = SettingProblem(spec, setting.value);
    settings.push_back(setting);
  }
  return settings;
}

std::vector<std::string> InstanceSettings::Problems() const {
  std::vector<std::string> problems = file_.problems;
  for (const EffectiveSetting& s : Effective())
    if (!s.problem.empty())
      problems.push_back(s.name + "='" + ShownValue(*FindSetting(s.name), s.value) + "' (" + s.source + ") " + s.problem);
  return problems;
}

void LogSettings(const InstanceSettings& settings) {
  const ConfigFile& file = settings.File();
  if (file.found)
    kvc::Log('i', "ctc5020", "settings file %s: %d values\n", file.path.c_str(), static_cast<int>(file.settings.size()));
  for (const std::string& problem : settings.Problems())
    kvc::Log('w', "ctc5021", "%s (kzqagent --check-config shows every setting)\n", problem.c_str());
}

bool PrintSettingsReport(const InstanceSettings& settings, FILE* out) {
  const ConfigFile& file = settings.File();
  fprintf(out, "configuration file: %s\n",
          file.path.empty() ? "none (no server id)" : (file.path + (file.found ? "" : " (not found)")).c_str());
  fprintf(out, "%-36s %-32s %s\n", "SETTING", "VALUE", "SOURCE");
  for (const EffectiveSetting& s : settings.Effective()) {
    const SettingSpec& spec = *FindSetting(s.name);
    const std::string shown = s.source == "default" ? std::string("(") + (spec.default_text[0] != '\0' ? spec.default_text : "unset") + ")"
                                                    : ShownValue(spec, s.value);
    fprintf(out, "%-36s %-32s %s\n", s.name.c_str(), shown.c_str(), s.source.c_str());
  }
  const std::vector<std::string> problems = settings.Problems();
  for (const std::string& problem : problems) fprintf(out, "error: %s\n", problem.c_str());
  return problems.empty();
}

}  // namespace kzq
