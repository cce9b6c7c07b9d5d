#include "framework/serve/agent_description.h"

#include <mutex>
#include <strings.h>

namespace framework {
namespace {

struct Description {
  std::mutex lock;
  nlohmann::ordered_json catalogue = nlohmann::ordered_json::array();
  ServiceProbe probe;
};

Description& TheDescription() {
  static Description* description = new Description;  // read by threads until exit
  return *description;
}

}  // namespace

void PublishCatalogue(nlohmann::ordered_json catalogue) {
  std::lock_guard<std::mutex> guard(TheDescription().lock);
  TheDescription().catalogue = std::move(catalogue);
}

const nlohmann::ordered_json& PublishedCatalogue() { return TheDescription().catalogue; }

std::vector<std::string> IdentifyingAttributes(const std::string& table) {
  std::vector<std::string> names;
  for (const auto& entry : PublishedCatalogue()) {
    if (strcasecmp(entry.value("name", "").c_str(), table.c_str()) != 0) continue;
    for (const auto& attribute : entry["attributes"])
      if (attribute.value("identifies", false)) names.push_back(attribute.value("name", ""));
  }
  return names;
}

void PublishServiceProbe(ServiceProbe probe) {
  std::lock_guard<std::mutex> guard(TheDescription().lock);
  TheDescription().probe = std::move(probe);
}

std::vector<ServiceState> ProbeServices() {
  ServiceProbe probe;
  {
    std::lock_guard<std::mutex> guard(TheDescription().lock);
    probe = TheDescription().probe;
  }
  return probe ? probe() : std::vector<ServiceState>{};
}

}  // namespace framework
