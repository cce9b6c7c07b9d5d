// kzqctl's side of the agent's HTTP endpoint. Every failure is said on
// standard error, in words a user can act on. One thread at a time.
#pragma once

#include <httplib.h>

#include <functional>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace kzq {

class CtlAgent {
 public:
  using Json = nlohmann::ordered_json;

  // How to reach an agent that asks for credentials, or speaks TLS.
  struct Access {
    std::string token;     // bearer token
    std::string user;      // basic authentication, when not empty
    std::string password;
    std::string ca_file;   // https: the CA of the agent's certificate; else the system's
  };

  // The URL's scheme is one this build speaks; false with the reason.
  static bool Supports(const std::string& url, std::string* error);

  CtlAgent(const std::string& url, const Access& access);

  // The answer's JSON, or nothing after saying why.
  std::optional<Json> Get(const std::string& path);
  std::optional<Json> Post(const std::string& path, const Json& body);

  // A fresh sample of `table`, narrowed by `filter` when it is not empty.
  std::optional<Json> Sample(const std::string& table, const std::string& filter);

  // Calls `each` with every event's JSON until the stream ends; false when
  // it could not be followed.
  bool Follow(const std::string& path, const std::function<void(const Json&)>& each);

 private:
  bool Unreachable(httplib::Error error) const;
  static bool Refused(int status, const std::string& body);
  std::optional<Json> Read(const httplib::Result& result) const;

  std::string url_;
  httplib::Client client_;
};

}  // namespace kzq
