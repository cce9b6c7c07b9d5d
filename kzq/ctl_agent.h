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

  CtlAgent(const std::string& url, const std::string& token);

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
