// A reload (SIGHUP, or the service's parameter-change control): the
// instance's file and registry key are read again; the settings that may
// change while the agent runs take their new values, and a change to any
// other is logged as waiting for the next start.
#pragma once

#include <vector>

#include "kzq/instance_settings.h"

namespace kzq {

// Thread use: Reload runs on one thread at a time (the reload's); the
// settings object is used by no one else after the start.
class SettingsReload {
 public:
  // `settings` as loaded at the start; it outlives this object.
  explicit SettingsReload(InstanceSettings& settings);

  // Returns how many settings took a new value.
  int Reload();

 private:
  InstanceSettings& settings_;
  std::vector<EffectiveSetting> in_force_;  // what the agent runs with
};

}  // namespace kzq
