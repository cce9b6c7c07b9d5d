#include "kzq/settings_reload.h"

#include "framework/kxamain.h"
#include "kvc/diagnostic_log.h"
#include "kzq/setting_list.h"

namespace kzq {

SettingsReload::SettingsReload(InstanceSettings& settings) : settings_(settings), in_force_(settings.Effective()) {}

int SettingsReload::Reload() {
  settings_.Reread();
  for (const std::string& problem : settings_.File().problems) kvc::Log('w', "ctc5021", "%s\n", problem.c_str());
  framework::SettingValues changed;
  const std::vector<EffectiveSetting> now = settings_.Effective();
  for (size_t i = 0; i < now.size(); ++i) {
    const EffectiveSetting& setting = now[i];
    EffectiveSetting& old = in_force_[i];
    if (setting.value == old.value) continue;
    const SettingSpec& spec = *FindSetting(setting.name);
    const std::string shown = ShownValue(spec, setting.value);
    if (!spec.reloadable) {
      kvc::Log('w', "ctc5022", "%s changed to '%s' (%s); it takes effect at the next start\n", setting.name.c_str(),
               shown.c_str(), setting.source.c_str());
    } else if (!setting.problem.empty()) {
      kvc::Log('w', "ctc5023", "%s='%s' (%s) %s; '%s' stays in force\n", setting.name.c_str(), shown.c_str(),
               setting.source.c_str(), setting.problem.c_str(), ShownValue(spec, old.value).c_str());
    } else {
      // An unset value means the default again.
      changed[setting.name] = setting.value.empty() ? spec.default_text : setting.value;
      old = setting;
      kvc::Log('i', "ctc5024", "%s is now '%s' (%s)\n", setting.name.c_str(), shown.c_str(), setting.source.c_str());
    }
  }
  const std::string refused = framework::ApplyReloadedSettings(changed);
  if (!refused.empty()) kvc::Log('e', "ctc5026", "the HTTP endpoint's access stays as it was: %s\n", refused.c_str());
  kvc::Log('i', "ctc5025", "settings reloaded: %d changed\n", static_cast<int>(changed.size()));
  return static_cast<int>(changed.size());
}

}  // namespace kzq
