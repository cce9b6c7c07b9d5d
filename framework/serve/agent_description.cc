#include "framework/serve/agent_description.h"

#include <strings.h>

namespace framework {
namespace {

bool SameName(const std::string& known, std::string_view name) {
  return known.size() == name.size() && strncasecmp(known.c_str(), name.data(), name.size()) == 0;
}

}  // namespace

const AttributeDescription* TableDescription::Attribute(std::string_view name) const {
  for (const AttributeDescription& a : attributes)
    if (SameName(a.name, name)) return &a;
  return nullptr;
}

std::vector<std::string> TableDescription::IdentifyingAttributes() const {
  std::vector<std::string> names;
  for (const AttributeDescription& a : attributes)
    if (a.identifies) names.push_back(a.name);
  return names;
}

const TableDescription* AgentDescription::Find(std::string_view table) const {
  for (const TableDescription& t : tables)
    if (SameName(t.name, table) || SameName(t.key, table)) return &t;
  return nullptr;
}

std::vector<ServiceState> AgentDescription::ProbeServices() const {
  return probe ? probe() : std::vector<ServiceState>{};
}

std::vector<CounterFamily> AgentDescription::Counters() const {
  return counters ? counters() : std::vector<CounterFamily>{};
}

}  // namespace framework
