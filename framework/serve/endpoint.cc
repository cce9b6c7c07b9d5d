#include "framework/serve/endpoint.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstring>
#include <mutex>

#include "framework/action_log.h"
#include "framework/agent.h"
#include "framework/request.h"
#include "framework/serve/catalogue_json.h"
#include "framework/serve/event_stream.h"
#include "framework/serve/http_access.h"
#include "framework/serve/http_server.h"
#include "framework/serve/metrics_text.h"
#include "framework/serve/row_json.h"
#include "framework/table_manager.h"
#include "kvc/channel_entry.h"
#include "platform/clock.h"
#include "platform/process_usage.h"

namespace framework {

struct HttpEndpoint::Impl {
  HttpSettings settings;
  HttpAccess access{nullptr};  // the token and users in force: replaced as a whole
  const SampleCache* cache = nullptr;
  std::shared_ptr<const AgentDescription> description;
  std::shared_ptr<const std::string> catalogue;  // GET /tables, made once
  std::mutex action_lock;  // one action at a time, so its log lines are its own
  HttpCounters counters;   // written by the server, read by /metrics and /status
  std::unique_ptr<HttpServer> server;
};

namespace {

using Json = nlohmann::ordered_json;

constexpr int kFreshSamplePatienceMs = 2000;

HttpResponse Answer(int status, const Json& body) { return HttpResponse::With(status, "application/json", WireText(body)); }

HttpResponse Refuse(int status, const std::string& message) { return Answer(status, {{"error", message}}); }

// The host a Host header names, without its port ("[::1]:19433" -> "::1").
std::string HostOf(const std::string& header) {
  if (!header.empty() && header[0] == '[') return header.substr(1, header.find(']') - 1);
  return header.substr(0, header.rfind(':'));
}

// "localhost", "::1" or a dotted address in 127/8 - and not a name that
// merely starts like one ("127.0.0.1.example.com").
bool IsLoopbackName(const std::string& host) {
  if (host == "localhost" || host == "::1") return true;
  int parts = 0;
  for (size_t at = 0; at <= host.size(); ++parts) {
    const size_t dot = std::min(host.find('.', at), host.size());
    const std::string part = host.substr(at, dot - at);
    if (part.empty() || part.size() > 3 || part.find_first_not_of("0123456789") != std::string::npos) return false;
    at = dot + 1;
  }
  return parts == 4 && host.rfind("127.", 0) == 0;
}

// A page of any web site can make a browser send requests to a name that
// it then resolves to 127.0.0.1 (DNS rebinding); such requests carry that
// name. On a loopback listen only loopback names, or the one configured,
// reach the routes. A client without a Host header is no browser.
bool HostAllowed(const HttpSettings& settings, const HttpRequest& req) {
  if (!IsLoopbackHost(settings.host) || !req.HasHeader("Host")) return true;
  std::string host = HostOf(req.Header("Host"));
  for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return IsLoopbackName(host) || host == settings.host;
}

std::vector<Label> AgentLabels(const MetricsContext& context) {
  return {{"server_id", context.server_id}, {"host", context.host}};
}

// One family of one sample with the agent's labels (and `extra`).
void OneSample(std::string* text, const MetricsContext& context, const std::string& name, const char* type,
               const std::string& help, const std::string& value, std::vector<Label> extra = {}) {
  std::vector<Label> labels = AgentLabels(context);
  labels.insert(labels.end(), extra.begin(), extra.end());
  FamilyHeader(text, name, type, help);
  SampleLine(text, name, labels, value);
}

// What a person needs to see why a scrape waits or a client was turned
// away: refusals by reason, connections and event consumers now, answers.
std::string EndpointCounters(const HttpCounters& counters, const MetricsContext& context) {
  std::string text;
  FamilyHeader(&text, "kzq_http_rejected_total", "counter",
               "Requests and connections the endpoint refused or closed before answering them, by reason.");
  for (size_t i = 0; i < kRefusalNames.size(); ++i) {
    std::vector<Label> labels = AgentLabels(context);
    labels.push_back({"reason", kRefusalNames[i]});
    SampleLine(&text, "kzq_http_rejected_total", labels, static_cast<int64_t>(counters.refused[i].load()));
  }
  OneSample(&text, context, "kzq_http_answers_total", "counter", "Answers the endpoint has begun to send.",
            std::to_string(counters.answered.load()));
  OneSample(&text, context, "kzq_http_connections", "gauge", "Connections the endpoint holds, event streams included.",
            std::to_string(counters.connections.load()));
  OneSample(&text, context, "kzq_http_event_consumers", "gauge", "Consumers following an event stream.",
            std::to_string(counters.streams.load()));
  return text;
}

// The agent's own process, as every exporter reports it, and how long this
// scrape has taken so far.
std::string SelfMetrics(const MetricsContext& context, uint64_t started_ms) {
  std::string text;
  OneSample(&text, context, "kzq_build_info", "gauge", "The agent's version; always 1.", "1", {{"version", KZQ_VERSION}});
  platform::ProcessUsage usage;
  if (platform::CurrentProcessUsage(&usage)) {
    char cpu[32];
    snprintf(cpu, sizeof cpu, "%.3f", usage.cpu_seconds);
    OneSample(&text, context, "process_cpu_seconds_total", "counter",
              "CPU time the agent has used, user and system, in seconds.", cpu);
    OneSample(&text, context, "process_resident_memory_bytes", "gauge", "The agent's memory in RAM, in bytes.",
              std::to_string(usage.resident_bytes));
    OneSample(&text, context, "process_virtual_memory_bytes", "gauge",
              "The agent's address space (committed memory on Windows), in bytes.", std::to_string(usage.virtual_bytes));
    if (usage.open_descriptors >= 0)
      OneSample(&text, context, "process_open_fds", "gauge", "Descriptors (handles on Windows) the agent holds open.",
                std::to_string(usage.open_descriptors));
    if (usage.max_descriptors >= 0)
      OneSample(&text, context, "process_max_fds", "gauge", "The most descriptors the agent may hold open.",
                std::to_string(usage.max_descriptors));
    OneSample(&text, context, "process_start_time_seconds", "gauge",
              "When the agent started, in seconds since 1970-01-01 UTC.", std::to_string(usage.start_unix_seconds));
  }
  char took[32];
  snprintf(took, sizeof took, "%.6f", static_cast<double>(platform::MonotonicMillis() - started_ms) / 1000.0);
  OneSample(&text, context, "kzq_scrape_duration_seconds", "gauge", "How long this answer took to make, in seconds.",
            took);
  return text;
}

MetricsContext CurrentContext(const AgentDescription& description) {
  const AgentIdentity identity = Identity();
  std::string host = identity.host;
  if (host.empty()) {
    char local[256];
    DetermineLocalHost(local, sizeof local);
    host = local;
  }
  MetricsContext context;
  context.server_id = identity.subsystem;
  context.host = host;
  context.now = platform::NowUnixSeconds();
  context.events_emitted = EventsEmitted();
  context.application_counters = description.Counters();
  return context;
}

// A table the framework can sample and the agent has described, or null.
const TableDescription* KnownTable(const HttpEndpoint::Impl& impl, const std::string& table) {
  return TableManager::Find(table) != nullptr ? impl.description->Find(table) : nullptr;
}

// The name after the route's prefix, if it is a table's name at all.
std::string NameAfter(const HttpRequest& req, size_t prefix) {
  const std::string name = req.path.substr(prefix);
  const bool plain = !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
  });
  return plain ? name : "";
}

// The scheduler's last sample of the table that got its data: what
// /metrics shows, at no cost to the collector.
HttpResponse CachedSample(const HttpEndpoint::Impl& impl, const std::string& table) {
  const std::string key = TableManager::Find(table)->Table();
  const auto snapshot = impl.cache->Snapshot();
  const auto it = snapshot.find(key);
  if (it == snapshot.end() || !it->second.last_good)
    return Answer(503, {{"table", key}, {"status", "failed"}, {"rows", Json::array()},
                        {"reason", "the scheduler has no sample of the table with its data yet"}});
  Json body = SampleJson(*it->second.last_good);
  body["status"] = it->second.last_good->count == 0 ? "empty" : "ok";
  body["cached"] = true;
  return Answer(200, body);
}

HttpResponse ServeSample(const HttpEndpoint::Impl& impl, const HttpRequest& req) {
  const std::string table = NameAfter(req, std::strlen("/tables/"));
  const TableDescription* described = table.empty() ? nullptr : KnownTable(impl, table);
  if (described == nullptr) return Refuse(404, "unknown table '" + req.path.substr(8) + "'");
  if (req.HasParam("cached")) {
    if (req.HasParam("filter")) return Refuse(400, "a filter needs a fresh sample: leave out 'cached'");
    return CachedSample(impl, table);
  }
  std::optional<SituationFilter> filter;
  if (req.HasParam("filter")) {
    std::string error;
    filter = ParseTableFilter(*described, req.Param("filter"), &error);
    if (!filter) return Refuse(400, "bad filter: " + error);
  }
  CapturedSample sample;
  // During an outage every exchange runs out its time-out: a consumer is
  // told within seconds that the channel is busy, not queued behind them.
  const kvc::ChannelPatience patience(kFreshSamplePatienceMs);
  if (CaptureReportSample(table, filter ? &*filter : nullptr, &sample) != kRequestOk)
    return Refuse(500, "the table made no object for the request");
  Json body = SampleJson(sample);
  body["sample_result"] = sample.sample_result;
  // An empty table and one whose data could not be had must not look alike.
  const bool failed = !sample.failure.empty() || sample.sample_result != 0;
  body["status"] = failed ? "failed" : sample.count == 0 ? "empty" : "ok";
  if (failed)
    body["reason"] = !sample.failure.empty() ? sample.failure
                                             : "the table's sample ended with " + std::to_string(sample.sample_result);
  return Answer(failed ? 503 : 200, body);
}

Json StatusJson(const HttpEndpoint::Impl& impl) {
  const MetricsContext context = CurrentContext(*impl.description);
  Json services = Json::array();
  for (const ServiceState& s : impl.description->ProbeServices()) {
    Json service = {{"role", s.role}, {"name", s.name}, {"up", s.up}};
    if (s.role == "sqlserver") service["reachable"] = s.reachable < 0 ? Json(nullptr) : Json(s.reachable == 1);
    services.push_back(std::move(service));
  }
  const auto snapshot = impl.cache->Snapshot();
  Json tables = Json::array();
  Json recent = Json::array();
  for (TableManager* manager : TableManager::Registered()) {
    Json entry = {{"name", manager->Table()}, {"taken_at", nullptr}, {"rows", 0},
                  {"samples", 0},             {"errors", 0},        {"failure", nullptr}};
    auto it = snapshot.find(manager->Table());
    if (it != snapshot.end() && it->second.last) {
      // What is shown is the last sample that got its data; a later one
      // that did not says why.
      const CapturedSample& last = it->second.last_good ? *it->second.last_good : *it->second.last;
      if (it->second.last_good) entry["taken_at"] = last.taken_at;
      entry["rows"] = last.count;
      entry["samples"] = it->second.samples;
      entry["errors"] = it->second.failures;
      if (!it->second.last->failure.empty()) entry["failure"] = it->second.last->failure;
      const TableDescription* described = impl.description->Find(manager->Table());
      if (described != nullptr && described->sampling == SamplingForm::kPushed)
        for (int i = 0; i < last.count; ++i) recent.push_back(RowJson(last, i));
    }
    tables.push_back(entry);
  }
  return {{"server_id", context.server_id}, {"host", context.host},      {"services", services},
          {"tables", tables},               {"recent_errors", recent}, {"events_emitted", context.events_emitted},
          {"event_consumers", impl.counters.streams.load()}};
}

void ServeEvents(HttpEndpoint::Impl& impl, const HttpRequest& req, HttpStream& stream) {
  const std::string table = NameAfter(req, std::strlen("/events/"));
  const TableDescription* described = table.empty() ? nullptr : KnownTable(impl, table);
  if (described == nullptr) return stream.Answer(Refuse(404, "unknown table '" + req.path.substr(8) + "'"));
  if (described->sampling != SamplingForm::kPushed)
    return stream.Answer(
        Refuse(404, "table '" + table + "' has no events: it is sampled, read /tables/" + table));
  std::shared_ptr<EventSubscription> subscription = EventSubscription::Open(table, req.Header("Last-Event-ID"));
  if (!subscription) return stream.Answer(Refuse(500, "the table made no object for the event request"));
  // The first line tells the consumer its request is open; later comments
  // find consumers that left.
  if (!stream.Begin("text/event-stream", {{"Cache-Control", "no-cache"}}) || !stream.Write(": subscribed\n\n", 14))
    return;
  while (!stream.Stopping()) {
    const auto frame = subscription->NextFrame(std::chrono::milliseconds(1000));
    if (!frame) {
      if (!stream.Write(": keep-alive\n\n", 14)) return;
      continue;
    }
    if (!stream.Write(frame->data(), frame->size())) return;
    subscription->Written();
  }
}

HttpResponse ServeAction(HttpEndpoint::Impl& impl, const HttpRequest& req) {
  const auto rules = impl.access.Current();
  if (rules->Token().empty())
    return Refuse(403, "actions are disabled: they run commands on the database host, so the agent takes "
                        "them only when KZQ_HTTP_TOKEN is set and the request carries it");
  // A password good enough to read the tables (a scraper's, say) is not
  // one to run commands with.
  if (!rules->TokenCarried(req, true))
    return Refuse(403, "actions take the bearer token (KZQ_HTTP_TOKEN) in the Authorization header, not a user "
                        "name and password");
  std::string command = req.body;
  std::string table = "KZQSRVR";
  if (req.Header("Content-Type").rfind("application/json", 0) == 0) {
    const Json body = Json::parse(req.body, nullptr, false);
    if (!body.is_object() || !body.contains("command") || !body["command"].is_string())
      return Refuse(400, "expected {\"command\": \"...\"}");
    command = body["command"].get<std::string>();
    if (body.contains("table") && body["table"].is_string()) table = body["table"].get<std::string>();
  }
  if (command.empty() || command.size() > 1024) return Refuse(400, "the command must have 1 to 1024 characters");
  TableManager* manager = TableManager::Find(table);
  if (manager == nullptr) return Refuse(404, "unknown table '" + table + "'");
  std::lock_guard<std::mutex> guard(impl.action_lock);
  const uint64_t before = ActionLogLast();
  RequestDetail detail;
  detail.table = manager->Table();
  const ContextInfo context{manager->Application()};
  tavra* object = manager->OpenRequest(&detail, &context);
  if (object == nullptr) return Refuse(500, "the table made no object for the action");
  TavraAutomationCapsule capsule;
  capsule.command = command;
  const int taken = object->ExecuteCommand(&capsule);
  manager->CloseRequest(object);
  if (taken != 0) return Refuse(501, "no take-action handler is registered");
  Json lines = Json::array();
  for (const ActionLogEntry& e : ActionLogSince(before))
    lines.push_back({{"id", e.id}, {"line", e.line}, {"title", e.title}});
  return Answer(200, {{"command", command}, {"result", capsule.result}, {"finished", capsule.finished},
                      {"lines", lines}});
}

HttpResponse Unauthorised(const AccessRules& rules) {
  if (!rules.HasUsers()) {
    HttpResponse refused = Refuse(401, "this agent needs its token: send 'Authorization: Bearer <KZQ_HTTP_TOKEN>'");
    refused.headers.emplace_back("WWW-Authenticate", "Bearer");
    return refused;
  }
  HttpResponse refused =
      Refuse(401, rules.Token().empty()
                      ? "this agent needs a user name and password (basic authentication)"
                      : "this agent needs a user name and password (basic authentication), or its token: "
                        "'Authorization: Bearer <KZQ_HTTP_TOKEN>'");
  refused.headers.emplace_back("WWW-Authenticate", "Basic realm=\"kzq\"");
  if (!rules.Token().empty()) refused.headers.emplace_back("WWW-Authenticate", "Bearer");
  return refused;
}

// Checked on every request before its route, after it was read whole, on
// the server's waiting thread: a password not verified before is checked
// later, off that thread.
AdmissionDecision Admit(const HttpEndpoint::Impl& impl, const HttpRequest& req) {
  if (!HostAllowed(impl.settings, req))
    return {std::pair{Refusal::kHost, Refuse(403, "this agent answers requests for its loopback address, not for '" +
                                                      req.Header("Host") + "'")},
            nullptr};
  // Probes say only whether the agent runs; they need no token.
  if (req.path.rfind("/-/", 0) == 0) return {};
  const std::shared_ptr<const AccessRules> rules = impl.access.Current();
  if (rules->Open() || rules->TokenCarried(req, false)) return {};
  const auto credentials = rules->HasUsers() ? BasicCredentialsOf(req) : std::nullopt;
  if (!credentials) return {std::pair{Refusal::kToken, Unauthorised(*rules)}, nullptr};
  if (rules->VerifiedBefore(*credentials)) return {};
  return {std::nullopt, [rules, credentials = *credentials]() -> Refused {
            if (rules->Verify(credentials)) return std::nullopt;
            return std::pair{Refusal::kAuth, Unauthorised(*rules)};
          }};
}

HttpRoute Route(std::string method, std::string path, HttpRoute::Kind kind,
                std::function<HttpResponse(const HttpRequest&)> answer, bool prefix = false) {
  HttpRoute route;
  route.method = std::move(method);
  route.prefix = prefix;
  route.path = std::move(path);
  route.kind = kind;
  route.answer = std::move(answer);
  return route;
}

HttpResponse Shared(std::shared_ptr<const std::string> body, std::string content_type) {
  HttpResponse response;
  response.content_type = std::move(content_type);
  response.body = std::move(body);
  return response;
}

std::vector<HttpRoute> Routes(HttpEndpoint::Impl& impl) {
  using Kind = HttpRoute::Kind;
  const auto page = std::make_shared<const std::string>(impl.description->status_page);
  std::vector<HttpRoute> routes;
  if (!page->empty())
    routes.push_back(Route("GET", "/", Kind::kShared,
                           [page](const HttpRequest&) { return Shared(page, "text/html; charset=utf-8"); }));
  routes.push_back(Route("GET", "/status", Kind::kShared,
                         [&impl](const HttpRequest&) { return Answer(200, StatusJson(impl)); }));
  routes.push_back(Route("GET", "/tables", Kind::kShared,
                         [&impl](const HttpRequest&) { return Shared(impl.catalogue, "application/json"); }));
  routes.push_back(Route("GET", "/metrics", Kind::kShared, [&impl](const HttpRequest&) {
    const uint64_t started = platform::MonotonicMillis();
    MetricsContext context = CurrentContext(*impl.description);
    context.stale_after = 2 * static_cast<int64_t>(impl.settings.sample_interval);
    context.raw_tables = impl.settings.raw_metrics;
    std::string text = MetricsText(impl.cache->Snapshot(), impl.description->tables, impl.description->metrics,
                                   impl.description->ProbeServices(), context) +
                       EndpointCounters(impl.counters, context);
    text += SelfMetrics(context, started);
    return HttpResponse::With(200, "text/plain; version=0.0.4; charset=utf-8", std::move(text));
  }));
  // For probes: the process serves, and it has sampled every table once.
  routes.push_back(Route("GET", "/-/healthy", Kind::kShared, [](const HttpRequest&) {
    return HttpResponse::With(200, "text/plain; charset=utf-8", "kzq agent is healthy.\n");
  }));
  routes.push_back(Route("GET", "/-/ready", Kind::kShared, [&impl](const HttpRequest&) {
    const auto snapshot = impl.cache->Snapshot();
    const size_t tables = TableManager::Registered().size();
    size_t sampled = 0;
    for (const auto& [name, state] : snapshot) sampled += state.last != nullptr;
    if (sampled >= tables) return HttpResponse::With(200, "text/plain; charset=utf-8", "kzq agent is ready.\n");
    return HttpResponse::With(503, "text/plain; charset=utf-8",
                              "kzq agent is not ready: " + std::to_string(sampled) + " of " + std::to_string(tables) +
                                  " tables sampled.\n");
  }));
  routes.push_back(
      Route("GET", "/tables/", Kind::kWork, [&impl](const HttpRequest& req) { return ServeSample(impl, req); },
            true));  // "/tables/<name>"
  routes.push_back(
      Route("POST", "/actions", Kind::kWork, [&impl](const HttpRequest& req) { return ServeAction(impl, req); }));
  HttpRoute events = Route("GET", "/events/", Kind::kStream, nullptr, true);  // "/events/<table>"
  events.stream = [&impl](const HttpRequest& req, HttpStream& stream) { ServeEvents(impl, req, stream); };
  routes.push_back(std::move(events));
  return routes;
}

}  // namespace

HttpEndpoint::HttpEndpoint(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HttpEndpoint::~HttpEndpoint() { Stop(); }

std::unique_ptr<HttpEndpoint> HttpEndpoint::Start(const HttpSettings& settings, const SampleCache* cache,
                                                  std::shared_ptr<const AgentDescription> description,
                                                  std::string* error) {
  auto impl = std::make_unique<Impl>();
  impl->settings = settings;
  impl->cache = cache;
  impl->description = std::move(description);
  impl->catalogue = std::make_shared<const std::string>(WireText(CatalogueJson(impl->description->tables)));
  impl->access.Replace(std::make_shared<const AccessRules>(settings.token, settings.web.users));
  Impl& held = *impl;
  std::string reason;
  std::unique_ptr<TlsServer> tls;
  if (settings.web.tls && !(tls = TlsServer::Create(*settings.web.tls, &reason))) {
    *error = "KZQ_WEB_CONFIG " + settings.web_config_path + ": " + reason;
    return nullptr;
  }
  impl->server = HttpServer::Start(
      settings.host, settings.port, Routes(held), [&held](const HttpRequest& req) { return Admit(held, req); },
      std::move(tls), &impl->counters, &reason);
  if (!impl->server) {
    *error = "cannot listen on " + settings.host + ":" + std::to_string(settings.port) + " (" + reason +
             "; address in use, or not an address of this host)";
    return nullptr;
  }
  return std::unique_ptr<HttpEndpoint>(new HttpEndpoint(std::move(impl)));
}

int HttpEndpoint::Port() const { return impl_->server->Port(); }

bool HttpEndpoint::ReplaceAccess(std::string token, std::map<std::string, std::string> users, std::string* error) {
  if (token.empty() && users.empty() && !IsLoopbackHost(impl_->settings.host)) {
    *error = "refusing to leave the endpoint on " + impl_->settings.host + " without a token or basic_auth_users";
    return false;
  }
  impl_->access.Replace(std::make_shared<const AccessRules>(std::move(token), std::move(users)));
  return true;
}

void HttpEndpoint::Stop() {
  if (impl_->server) impl_->server->Stop();
}

}  // namespace framework
