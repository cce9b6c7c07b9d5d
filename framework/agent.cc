#include "framework/agent.h"

#include <condition_variable>
#include <cstring>
#include <mutex>

#include "framework/table_manager.h"
#include "platform/process.h"

namespace framework {
namespace {

struct AgentState {
  std::mutex lock;
  std::condition_variable stopped;
  AgentIdentity identity;
  AgentLoader loader = nullptr;
  std::shared_ptr<const AgentDescription> description = std::make_shared<AgentDescription>();
  bool shutdown = false;
};

AgentState& State() {
  // Never destroyed: the exit routine shuts the framework down while the
  // process exits, and the thread in WaitForShutdown may still hold it.
  static AgentState& state = *new AgentState;
  return state;
}

template <typename Change>
int Update(Change change) {
  AgentState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  change(s);
  return 0;
}

}  // namespace

AgentIdentity Identity() {
  AgentState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.identity;
}

AgentLoader RegisteredLoader() {
  AgentState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.loader;
}

void DescribeAgent(AgentDescription description) {
  auto shared = std::make_shared<const AgentDescription>(std::move(description));
  Update([&shared](AgentState& s) { s.description = std::move(shared); });
}

std::shared_ptr<const AgentDescription> DescribedAgent() {
  AgentState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.description;
}

bool ShutdownRequested() {
  AgentState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.shutdown;
}

void WaitForShutdown() {
  AgentState& s = State();
  std::unique_lock<std::mutex> guard(s.lock);
  s.stopped.wait(guard, [&s] { return s.shutdown; });
}

}  // namespace framework

using framework::AgentState;

int AVR_RegisterAgentLoader(AgentLoader loader) {
  return framework::Update([loader](AgentState& s) { s.loader = loader; });
}

int AVR_SetVersionUsingProduct(const char* product, char* buffer, int size) {
  if (product == nullptr || strcmp(product, framework::kProductCode) != 0) return 2;
  const int needed = static_cast<int>(strlen(framework::kProductVersion)) + 1;
  if (buffer == nullptr || size < needed) return 1;
  memcpy(buffer, framework::kProductVersion, static_cast<size_t>(needed));
  return framework::Update([](AgentState& s) { s.identity.version = framework::kProductVersion; });
}

int AVR_SetAffinity(const char* affinity) {
  return framework::Update([affinity](AgentState& s) { s.identity.affinities.emplace_back(affinity); });
}

int AVR_SetCurrency(int major, int minor) {
  return framework::Update([=](AgentState& s) {
    s.identity.currency_major = major;
    s.identity.currency_minor = minor;
  });
}

int AVR_SetHostname(const char* host) {
  return framework::Update([host](AgentState& s) { s.identity.host = host; });
}

int AVR_SetSubsystemId(const char* subsystem) {
  return framework::Update([subsystem](AgentState& s) { s.identity.subsystem = subsystem; });
}

int AVR_SetNodeType(const char* node_type) {
  return framework::Update([node_type](AgentState& s) { s.identity.node_type = node_type; });
}

int AVR_Shutdown(int) {
  AgentState& s = framework::State();
  {
    std::lock_guard<std::mutex> guard(s.lock);
    if (s.shutdown) return 0;
    s.shutdown = true;
  }
  for (framework::TableManager* manager : framework::TableManager::Registered()) manager->Shutdown();
  s.stopped.notify_all();
  return 0;
}

int DetermineLocalHost(char* buffer, int limit) {
  if (buffer == nullptr || limit <= 0) return 0;
  const std::string host = platform::LocalHostName();
  const size_t n = host.size() < static_cast<size_t>(limit - 1) ? host.size() : static_cast<size_t>(limit - 1);
  memcpy(buffer, host.data(), n);
  buffer[n] = '\0';
  return static_cast<int>(n);
}
