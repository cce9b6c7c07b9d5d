// The HTTP endpoint of the framework: the catalogue, fresh samples as
// JSON, Prometheus metrics of the cached samples, live error events as
// server-sent events, take-action commands, and a status page.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "framework/serve/agent_description.h"
#include "framework/serve/http_settings.h"
#include "framework/serve/sample_cache.h"

namespace framework {

class HttpEndpoint {
 public:
  // Binds and starts serving on threads of its own, answering from the
  // cache and the agent's description; null with *error set when the
  // address cannot be bound.
  static std::unique_ptr<HttpEndpoint> Start(const HttpSettings& settings, const SampleCache* cache,
                                             std::shared_ptr<const AgentDescription> description, std::string* error);
  ~HttpEndpoint();

  int Port() const;
  // Replaces the bearer token and the basic-auth users (name -> bcrypt
  // hash, as ReadWebConfig gives them) as a whole, for every request read
  // whole after it returns; passwords verified under the old users are
  // verified again. Any thread, while the endpoint runs. The address, TLS
  // and the other settings stay as started. False, changing nothing, when
  // it would leave a non-loopback address unguarded.
  bool ReplaceAccess(std::string token, std::map<std::string, std::string> users, std::string* error);
  // Ends every event stream and stops listening; waits for the threads.
  void Stop();

  struct Impl;

 private:
  explicit HttpEndpoint(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace framework
