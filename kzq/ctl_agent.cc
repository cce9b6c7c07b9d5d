#include "kzq/ctl_agent.h"

#include <cstdio>
#include <sstream>

namespace kzq {
namespace {

using Json = nlohmann::ordered_json;

// One server-sent-events frame: "id:" and "data:" lines; "event: gap"
// says how many events this consumer lost by falling behind.
void TakeFrame(const std::string& frame, const std::function<void(const Json&)>& each) {
  bool gap = false;
  std::istringstream lines(frame);
  for (std::string line; std::getline(lines, line);) {
    if (line == "event: gap") gap = true;
    if (line.rfind("data: ", 0) != 0) continue;
    const Json data = Json::parse(line.substr(6), nullptr, false);
    if (!data.is_object()) continue;
    if (!gap) each(data);
    else fprintf(stderr, "kzqctl: %s events were dropped: this consumer fell behind\n", data.value("dropped", Json(0)).dump().c_str());
  }
}

}  // namespace

bool CtlAgent::Supports(const std::string& url, std::string* error) {
#ifdef CPPHTTPLIB_OPENSSL_SUPPORT
  (void)url;
  (void)error;
  return true;
#else
  if (url.rfind("https://", 0) != 0) return true;
  *error = "this build of kzqctl has no TLS: it cannot reach " + url;
  return false;
#endif
}

CtlAgent::CtlAgent(const std::string& url, const Access& access) : url_(url), client_(url) {
  if (!access.token.empty()) client_.set_bearer_token_auth(access.token);
  if (!access.user.empty()) client_.set_basic_auth(access.user, access.password);
#ifdef CPPHTTPLIB_OPENSSL_SUPPORT
  if (!access.ca_file.empty()) client_.set_ca_cert_path(access.ca_file);
#endif
  client_.set_connection_timeout(5);
  client_.set_read_timeout(120);
}

std::optional<Json> CtlAgent::Get(const std::string& path) { return Read(client_.Get(path)); }

std::optional<Json> CtlAgent::Post(const std::string& path, const Json& body) {
  return Read(client_.Post(path, body.dump(), "application/json"));
}

std::optional<Json> CtlAgent::Sample(const std::string& table, const std::string& filter) {
  std::string path = "/tables/" + httplib::detail::encode_query_param(table);
  if (!filter.empty()) path += "?filter=" + httplib::detail::encode_query_param(filter);
  return Get(path);
}

bool CtlAgent::Follow(const std::string& path, const std::function<void(const Json&)>& each) {
  std::string pending;
  int status = 0;
  auto result = client_.Get(
      path, httplib::Headers{},
      [&](const httplib::Response& response) {
        status = response.status;
        return true;
      },
      [&](const char* data, size_t length) {
        pending.append(data, length);
        for (size_t end; (end = pending.find("\n\n")) != std::string::npos; pending.erase(0, end + 2))
          TakeFrame(pending.substr(0, end), each);
        return status == 200;
      });
  if (!result) return Unreachable(result.error());
  if (status != 200) return Refused(status, pending);
  return true;
}

bool CtlAgent::Unreachable(httplib::Error error) const {
  fprintf(stderr, "kzqctl: no agent answers at %s (%s): is kzqagent running, and is the URL right?\n", url_.c_str(),
          httplib::to_string(error).c_str());
  return false;
}

bool CtlAgent::Refused(int status, const std::string& body) {
  const Json error = Json::parse(body, nullptr, false);
  // A refusal says "error"; a sample that could not get its data, "reason".
  const std::string message = error.is_object() ? error.value("error", error.value("reason", body)) : body;
  fprintf(stderr, "kzqctl: the agent answered %d: %s\n", status, message.c_str());
  return false;
}

std::optional<Json> CtlAgent::Read(const httplib::Result& result) const {
  if (!result) return Unreachable(result.error()), std::nullopt;
  if (result->status != 200) return Refused(result->status, result->body), std::nullopt;
  Json body = Json::parse(result->body, nullptr, false);
  if (body.is_discarded()) return fprintf(stderr, "kzqctl: the agent's answer is not JSON\n"), std::nullopt;
  return body;
}

}  // namespace kzq
