// kzqctl: the command-line companion of the agent; it talks to the
// agent's HTTP endpoint.
//   kzqctl [--url URL] [--token TOKEN] tables [--json]
//   kzqctl ... sample <TABLE> [--filter TEXT] [--json]
//   kzqctl ... events [--json]
//   kzqctl ... action "<command>"
#include <httplib.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kzq/ctl_format.h"
#include "platform/environment.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kUsage =
    "usage: kzqctl [--url URL] [--token TOKEN] COMMAND\n"
    "  tables [--json]                           the agent's tables\n"
    "  sample TABLE [--filter TEXT] [--json]     a fresh sample of one table\n"
    "  events [--json]                           follow the error events (Ctrl-C ends)\n"
    "  action \"COMMAND\"                          run a take-action command\n"
    "URL defaults to http://$KZQ_HTTP_LISTEN (127.0.0.1:9433), TOKEN to $KZQ_HTTP_TOKEN.\n";

struct Options {
  std::string url;
  std::string token;
  std::string filter;
  bool json = false;
  std::vector<std::string> words;  // the command and its operand
};

std::string DefaultUrl() {
  const std::string listen = platform::GetEnv("KZQ_HTTP_LISTEN").value_or("");
  return "http://" + (listen.empty() || listen == "off" ? std::string("127.0.0.1:9433") : listen);
}

bool ParseArguments(int argc, char** argv, Options* o) {
  o->url = DefaultUrl();
  o->token = platform::GetEnv("KZQ_HTTP_TOKEN").value_or("");
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    const bool has_value = i + 1 < argc;
    if (word == "--json") o->json = true;
    else if (word == "--url" && has_value) o->url = argv[++i];
    else if (word == "--token" && has_value) o->token = argv[++i];
    else if (word == "--filter" && has_value) o->filter = argv[++i];
    else if (word.rfind("--", 0) == 0) return false;
    else o->words.push_back(word);
  }
  return !o->words.empty();
}

class Agent {
 public:
  explicit Agent(const Options& o) : url_(o.url), client_(o.url) {
    if (!o.token.empty()) client_.set_bearer_token_auth(o.token);
    client_.set_connection_timeout(5);
    client_.set_read_timeout(120);
  }

  // The answer's JSON, or std::nullopt after saying why on standard error.
  std::optional<Json> Get(const std::string& path) { return Read(client_.Get(path)); }
  std::optional<Json> Post(const std::string& path, const Json& body) {
    return Read(client_.Post(path, body.dump(), "application/json"));
  }

  // Calls `each` with every event's JSON until the stream ends.
  bool Follow(const std::string& path, const std::function<void(const Json&)>& each) {
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

 private:
  // One server-sent-events frame: "id:" and "data:" lines; "event: gap"
  // says how many events this consumer lost by falling behind.
  static void TakeFrame(const std::string& frame, const std::function<void(const Json&)>& each) {
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

  bool Unreachable(httplib::Error error) {
    fprintf(stderr, "kzqctl: no agent answers at %s (%s): is kzqagent running, and is the URL right?\n", url_.c_str(),
            httplib::to_string(error).c_str());
    return false;
  }

  bool Refused(int status, const std::string& body) {
    const Json error = Json::parse(body, nullptr, false);
    // A refusal says "error"; a sample that could not get its data, "reason".
    const std::string message = error.is_object() ? error.value("error", error.value("reason", body)) : body;
    fprintf(stderr, "kzqctl: the agent answered %d: %s\n", status, message.c_str());
    return false;
  }

  std::optional<Json> Read(const httplib::Result& result) {
    if (!result) return Unreachable(result.error()), std::nullopt;
    if (result->status != 200) return Refused(result->status, result->body), std::nullopt;
    Json body = Json::parse(result->body, nullptr, false);
    if (body.is_discarded()) return fprintf(stderr, "kzqctl: the agent's answer is not JSON\n"), std::nullopt;
    return body;
  }

  std::string url_;
  httplib::Client client_;
};

void Print(const Json& value) { printf("%s\n", value.dump(2, ' ', false, Json::error_handler_t::replace).c_str()); }

int Tables(Agent& agent, const Options& o) {
  const auto tables = agent.Get("/tables");
  if (!tables) return 1;
  if (o.json) return Print(*tables), 0;
  for (const Json& t : *tables)
    printf("%-10s %-8s %5d bytes  %s\n", t.value("key", "").c_str(), t.value("sampling", "").c_str(),
           t.value("row_size", 0), t.value("key", "") == "KZQERROR" ? "events: kzqctl events" : "");
  return 0;
}

int Sample(Agent& agent, const Options& o) {
  if (o.words.size() != 2) return fputs(kUsage, stderr), 2;
  std::string path = "/tables/" + o.words[1];
  if (!o.filter.empty()) path += "?filter=" + httplib::detail::encode_query_param(o.filter);
  const auto sample = agent.Get(path);
  if (!sample) return 1;
  if (o.json) return Print(*sample), 0;
  fputs(kzq::SampleTable(*sample).c_str(), stdout);
  return 0;
}

int Events(Agent& agent, const Options& o) {
  const bool ended = agent.Follow("/events/KZQERROR", [&](const Json& event) {
    printf("%s\n", o.json ? event.dump(-1, ' ', false, Json::error_handler_t::replace).c_str()
                          : kzq::EventLine(event).c_str());
    fflush(stdout);
  });
  return ended ? 0 : 1;
}

int Action(Agent& agent, const Options& o) {
  if (o.words.size() != 2) return fputs(kUsage, stderr), 2;
  const auto answer = agent.Post("/actions", {{"command", o.words[1]}});
  if (!answer) return 1;
  if (o.json) return Print(*answer), 0;
  for (const Json& line : (*answer)["lines"]) printf("%s\n", line.value("line", "").c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseArguments(argc, argv, &options)) return fputs(kUsage, stderr), 2;
  Agent agent(options);
  const std::string& command = options.words[0];
  if (command == "tables") return Tables(agent, options);
  if (command == "sample") return Sample(agent, options);
  if (command == "events") return Events(agent, options);
  if (command == "action") return Action(agent, options);
  fputs(kUsage, stderr);
  return 2;
}
