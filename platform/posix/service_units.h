// Which systemd unit runs a service of a Windows-style name, for the
// service probe: the map in KZQ_SERVICE_UNITS, "NAME=unit[,NAME=unit...]",
// or "MSSQLSERVER=mssql-server" when that is unset.
#pragma once

#include <optional>
#include <string>

namespace platform::posix {

// The unit that `map` gives `name` (compared in any case), without its
// ".service" suffix; nothing when the map has none. Blanks around items,
// names and units are ignored; an item with no '=', an empty name or unit,
// or a unit holding '/', '=' or a blank is skipped. A later item for the
// same name wins.
std::optional<std::string> FindServiceUnit(const std::string& map, const std::string& name);

// FindServiceUnit over the configured map.
std::optional<std::string> ServiceUnit(const std::string& name);

}  // namespace platform::posix
