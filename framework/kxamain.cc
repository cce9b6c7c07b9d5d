#include "framework/kxamain.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "framework/agent.h"
#include "framework/serve/endpoint.h"
#include "framework/serve/sample_cache.h"
#include "framework/table_manager.h"
#include "framework/trace.h"
#include "kvc/diagnostic_log.h"
#include "platform/semaphore.h"

namespace {

// What kxamain starts. Never destroyed: a service ends by process exit,
// while these threads may still run.
struct Serving {
  std::mutex lock;
  framework::SampleCache cache;
  framework::SampleScheduler* scheduler = nullptr;
  std::unique_ptr<framework::HttpEndpoint> endpoint;
  framework::HttpSettings http;  // as started, with the access a reload gave since
};

// A reload reads the web configuration's users again and takes a new
// token; the address and TLS stay as started.
std::string ReplaceAccess(Serving& s, const framework::SettingValues& values) {
  std::string token = s.http.token;
  const auto new_token = values.find("KZQ_HTTP_TOKEN");
  if (new_token != values.end()) token = new_token->second;
  std::string error;
  auto users = s.http.web.users;
  if (!s.http.web_config_path.empty()) {
    const auto web = framework::ReadWebConfig(s.http.web_config_path, &error);
    if (!web) return error + "; the users stay as they were";
    users = web->users;
  }
  if (token == s.http.token && users == s.http.web.users) return "";
  if (!s.endpoint->ReplaceAccess(token, users, &error)) return error;
  s.http.token = token;
  s.http.web.users = users;
  return "";
}

Serving& TheServing() {
  static Serving* serving = new Serving;
  return *serving;
}

// Registered after the agent's exit routine, so it runs before it: no
// sample may be waiting on the channel when the exit routine shuts it.
void StopServing() {
  // A sample waiting on a collector that does not answer would hold the
  // stop up for the channel's whole timeout.
  platform::AbandonSemaphoreWaits();
  Serving& s = TheServing();
  std::lock_guard<std::mutex> guard(s.lock);
  if (s.endpoint) s.endpoint->Stop();
  if (s.scheduler != nullptr) s.scheduler->Stop();
}

// A setting that cannot be served as asked stops the start: an agent
// nobody can reach, or one that anyone could, is worse than none.
int RefuseStart(const std::string& reason) {
  kvc::Log('e', "kxa0001", "kzqagent: %s\n", reason.c_str());
  TRC1_Printf("HTTP endpoint not started: %s\n", reason.c_str());
  TRC1_Sync();
  return 2;
}

std::string UrlHost(const std::string& host) { return host.find(':') != std::string::npos ? "[" + host + "]" : host; }

}  // namespace

namespace framework {

std::string ApplyReloadedSettings(const SettingValues& values) {
  Serving& s = TheServing();
  std::lock_guard<std::mutex> guard(s.lock);
  const auto interval = values.find("KZQ_SAMPLE_INTERVAL");
  if (s.scheduler != nullptr && interval != values.end()) s.scheduler->SetInterval(atoi(interval->second.c_str()));
  const auto description = DescribedAgent();
  if (description->apply_settings) description->apply_settings(values);
  return s.endpoint ? ReplaceAccess(s, values) : "";
}

}  // namespace framework

int kxamain(int, char**) {
  std::string error;
  const auto settings = framework::ReadHttpSettings(&error);
  if (!settings) return RefuseStart(error);
  if (AgentLoader loader = framework::RegisteredLoader()) loader();
  // One line per start, whatever the trace level: it tells an operator
  // reading the trace what the agent came up with.
  TRC1_Printf("Agent started with %d tables\n", static_cast<int>(framework::TableManager::Registered().size()));
  TRC1_Sync();
  Serving& s = TheServing();
  {
    std::lock_guard<std::mutex> guard(s.lock);
    s.http = *settings;
    if (settings->enabled) {
      s.endpoint = framework::HttpEndpoint::Start(*settings, &s.cache, framework::DescribedAgent(), &error);
      if (!s.endpoint) return RefuseStart(error);
      const std::string url = std::string(settings->web.tls ? "https://" : "http://") + UrlHost(settings->host) + ":" + std::to_string(s.endpoint->Port()) + "/";
      printf("kzqagent: HTTP endpoint on %s\n", url.c_str());
      fflush(stdout);
      TRC1_Printf("HTTP endpoint on %s\n", url.c_str());
      TRC1_Sync();
    }
    s.scheduler = new framework::SampleScheduler(&s.cache, settings->sample_interval);
    s.scheduler->Start();
  }
  atexit(StopServing);
  framework::WaitForShutdown();
  StopServing();
  TRC1_Sync();
  return 0;
}
