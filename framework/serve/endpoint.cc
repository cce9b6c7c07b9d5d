#include "framework/serve/endpoint.h"

#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <thread>

#include "framework/action_log.h"
#include "framework/agent.h"
#include "framework/request.h"
#include "framework/serve/catalogue_json.h"
#include "framework/serve/event_stream.h"
#include "framework/serve/metrics_text.h"
#include "framework/serve/row_json.h"
#include "framework/serve/status_page.h"
#include "framework/table_manager.h"
#include "kvc/channel_entry.h"
#include "platform/clock.h"
#include "platform/listen_socket.h"

namespace framework {

struct HttpEndpoint::Impl {
  HttpSettings settings;
  const SampleCache* cache = nullptr;
  std::shared_ptr<const AgentDescription> description;
  std::string catalogue;  // GET /tables, made once
  httplib::Server server;
  std::thread listener;
  int port = 0;
  std::atomic<bool> stopping{false};
  std::atomic<bool> listener_done{false};
  std::atomic<int> event_consumers{0};
  std::mutex action_lock;  // one action at a time, so its log lines are its own
  // Requests refused before any route ran, by reason; any thread.
  std::atomic<uint64_t> rejected_host{0};
  std::atomic<uint64_t> rejected_token{0};
};

namespace {

using Json = nlohmann::ordered_json;

constexpr int kFreshSamplePatienceMs = 2000;

void Answer(httplib::Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(WireText(body), "application/json");
}

void Refuse(httplib::Response& res, int status, const std::string& message) {
  Answer(res, status, {{"error", message}});
}

// Compares in time that does not depend on where the texts differ.
bool SameSecret(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
  return difference == 0;
}

bool Authorised(const std::string& token, const httplib::Request& req) {
  if (token.empty()) return true;
  const std::string header = req.get_header_value("Authorization");
  if (header.rfind("Bearer ", 0) == 0 && SameSecret(header.substr(7), token)) return true;
  // A token in the address ends up in logs and histories; it is taken only
  // where a browser cannot send the header (reading pages and streams),
  // never for an action.
  return req.method == "GET" && req.has_param("access_token") &&
         SameSecret(req.get_param_value("access_token"), token);
}

// The host a Host header names, without its port ("[::1]:9433" -> "::1").
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
bool HostAllowed(const HttpSettings& settings, const httplib::Request& req) {
  if (!IsLoopbackHost(settings.host) || !req.has_header("Host")) return true;
  std::string host = HostOf(req.get_header_value("Host"));
  for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return IsLoopbackName(host) || host == settings.host;
}

std::string RejectionCounters(const HttpEndpoint::Impl& impl, const MetricsContext& context) {
  std::string text =
      "# HELP kzq_http_rejected_total Requests the endpoint refused before answering them, by reason.\n"
      "# TYPE kzq_http_rejected_total counter\n";
  for (const auto& [reason, count] : {std::pair<const char*, uint64_t>{"host", impl.rejected_host.load()},
                                      {"token", impl.rejected_token.load()}})
    text += "kzq_http_rejected_total{server_id=\"" + EscapeLabelValue(context.server_id) + "\",host=\"" +
            EscapeLabelValue(context.host) + "\",reason=\"" + reason + "\"} " + std::to_string(count) + "\n";
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

void ServeSample(const HttpEndpoint::Impl& impl, const httplib::Request& req, httplib::Response& res) {
  const std::string table = req.matches[1];
  const TableDescription* described = KnownTable(impl, table);
  if (described == nullptr) return Refuse(res, 404, "unknown table '" + table + "'");
  std::optional<SituationFilter> filter;
  if (req.has_param("filter")) {
    std::string error;
    filter = ParseTableFilter(*described, req.get_param_value("filter"), &error);
    if (!filter) return Refuse(res, 400, "bad filter: " + error);
  }
  CapturedSample sample;
  // During an outage every exchange runs out its time-out: a consumer is
  // told within seconds that the channel is busy, not queued behind them.
  const kvc::ChannelPatience patience(kFreshSamplePatienceMs);
  if (CaptureReportSample(table, filter ? &*filter : nullptr, &sample) != kRequestOk)
    return Refuse(res, 500, "the table made no object for the request");
  Json body = SampleJson(sample);
  body["sample_result"] = sample.sample_result;
  // An empty table and one whose data could not be had must not look alike.
  const bool failed = !sample.failure.empty() || sample.sample_result != 0;
  body["status"] = failed ? "failed" : sample.count == 0 ? "empty" : "ok";
  if (failed)
    body["reason"] = !sample.failure.empty() ? sample.failure
                                             : "the table's sample ended with " + std::to_string(sample.sample_result);
  Answer(res, failed ? 503 : 200, body);
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
          {"event_consumers", impl.event_consumers.load()}};
}

void ServeEvents(HttpEndpoint::Impl& impl, const httplib::Request& req, httplib::Response& res) {
  const std::string table = req.matches[1];
  const TableDescription* described = KnownTable(impl, table);
  if (described == nullptr) return Refuse(res, 404, "unknown table '" + table + "'");
  if (described->sampling != SamplingForm::kPushed)
    return Refuse(res, 404, "table '" + table + "' has no events: it is sampled, read /tables/" + table);
  if (++impl.event_consumers > kMaxEventConsumers) {
    --impl.event_consumers;
    return Refuse(res, 503, "too many event consumers (at most " + std::to_string(kMaxEventConsumers) + ")");
  }
  std::shared_ptr<EventSubscription> subscription =
      EventSubscription::Open(table, req.get_header_value("Last-Event-ID"));
  if (!subscription) {
    --impl.event_consumers;
    return Refuse(res, 500, "the table made no object for the event request");
  }
  res.set_header("Cache-Control", "no-cache");
  res.set_chunked_content_provider(
      "text/event-stream",
      [&impl, subscription](size_t offset, httplib::DataSink& sink) {
        if (impl.stopping) return false;
        // The first line tells the consumer its request is open; later
        // comments find consumers that left.
        if (offset == 0) return sink.write(": subscribed\n\n", 14);
        const auto frame = subscription->NextFrame(std::chrono::milliseconds(1000));
        if (!frame) return sink.write(": keep-alive\n\n", 14);
        if (!sink.write(frame->data(), frame->size())) return false;
        subscription->Written();
        return true;
      },
      [&impl](bool) { --impl.event_consumers; });
}

void ServeAction(HttpEndpoint::Impl& impl, const httplib::Request& req, httplib::Response& res) {
  if (impl.settings.token.empty())
    return Refuse(res, 403, "actions are disabled: they run commands on the database host, so the agent takes "
                            "them only when KZQ_HTTP_TOKEN is set and the request carries it");
  std::string command = req.body;
  std::string table = "KZQSRVR";
  if (req.get_header_value("Content-Type").rfind("application/json", 0) == 0) {
    const Json body = Json::parse(req.body, nullptr, false);
    if (!body.is_object() || !body.contains("command") || !body["command"].is_string())
      return Refuse(res, 400, "expected {\"command\": \"...\"}");
    command = body["command"].get<std::string>();
    if (body.contains("table") && body["table"].is_string()) table = body["table"].get<std::string>();
  }
  if (command.empty() || command.size() > 1024) return Refuse(res, 400, "the command must have 1 to 1024 characters");
  TableManager* manager = TableManager::Find(table);
  if (manager == nullptr) return Refuse(res, 404, "unknown table '" + table + "'");
  std::lock_guard<std::mutex> guard(impl.action_lock);
  const uint64_t before = ActionLogLast();
  RequestDetail detail;
  detail.table = manager->Table();
  const ContextInfo context{manager->Application()};
  tavra* object = manager->OpenRequest(&detail, &context);
  if (object == nullptr) return Refuse(res, 500, "the table made no object for the action");
  TavraAutomationCapsule capsule;
  capsule.command = command;
  const int taken = object->ExecuteCommand(&capsule);
  manager->CloseRequest(object);
  if (taken != 0) return Refuse(res, 501, "no take-action handler is registered");
  Json lines = Json::array();
  for (const ActionLogEntry& e : ActionLogSince(before))
    lines.push_back({{"id", e.id}, {"line", e.line}, {"title", e.title}});
  Answer(res, 200, {{"command", command}, {"result", capsule.result}, {"finished", capsule.finished},
                    {"lines", lines}});
}

void Route(HttpEndpoint::Impl& impl) {
  httplib::Server& s = impl.server;
  s.set_payload_max_length(kMaxRequestBody);
  // A small answer's body would otherwise wait for the client's delayed
  // acknowledgement of its headers: 40 ms on a kept-alive connection.
  s.set_tcp_nodelay(true);
  s.new_task_queue = [] { return new httplib::ThreadPool(kMaxEventConsumers + 8); };
  s.set_pre_routing_handler([&impl](const httplib::Request& req, httplib::Response& res) {
    if (!HostAllowed(impl.settings, req)) {
      ++impl.rejected_host;
      Refuse(res, 403, "this agent answers requests for its loopback address, not for '" +
                           req.get_header_value("Host") + "'");
      return httplib::Server::HandlerResponse::Handled;
    }
    if (Authorised(impl.settings.token, req)) return httplib::Server::HandlerResponse::Unhandled;
    ++impl.rejected_token;
    res.set_header("WWW-Authenticate", "Bearer");
    Refuse(res, 401, "this agent needs its token: send 'Authorization: Bearer <KZQ_HTTP_TOKEN>'");
    return httplib::Server::HandlerResponse::Handled;
  });
  s.Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(StatusPageHtml(), "text/html; charset=utf-8");
  });
  s.Get("/status", [&impl](const httplib::Request&, httplib::Response& res) {
    Answer(res, 200, StatusJson(impl));
  });
  s.Get("/tables", [&impl](const httplib::Request&, httplib::Response& res) {
    res.set_content(impl.catalogue, "application/json");
  });
  s.Get(R"(/tables/([A-Za-z0-9]+))",
        [&impl](const httplib::Request& req, httplib::Response& res) { ServeSample(impl, req, res); });
  s.Get("/metrics", [&impl](const httplib::Request&, httplib::Response& res) {
    MetricsContext context = CurrentContext(*impl.description);
    context.stale_after = 2 * static_cast<int64_t>(impl.settings.sample_interval);
    res.set_content(MetricsText(impl.cache->Snapshot(), impl.description->tables, impl.description->ProbeServices(),
                                context) +
                        RejectionCounters(impl, context),
                    "text/plain; version=0.0.4; charset=utf-8");
  });
  s.Get(R"(/events/([A-Za-z0-9]+))",
        [&impl](const httplib::Request& req, httplib::Response& res) { ServeEvents(impl, req, res); });
  s.Post("/actions", [&impl](const httplib::Request& req, httplib::Response& res) { ServeAction(impl, req, res); });
  s.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
    if (res.body.empty()) Refuse(res, res.status, "no such resource: " + req.method + " " + req.path);
  });
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
  impl->catalogue = WireText(CatalogueJson(impl->description->tables));
  Route(*impl);
  // One agent per address: the library's default lets a second listener
  // share the port and take half of its requests.
  impl->server.set_socket_options([](socket_t socket) {
    platform::MakeListenerExclusive(static_cast<uintptr_t>(socket));
  });
  impl->port = settings.port == 0 ? impl->server.bind_to_any_port(settings.host)
                                  : (impl->server.bind_to_port(settings.host, settings.port) ? settings.port : -1);
  if (impl->port <= 0) {
    *error = "cannot listen on " + settings.host + ":" + std::to_string(settings.port) +
             " (address in use, or not an address of this host)";
    return nullptr;
  }
  Impl* raw = impl.get();
  impl->listener = std::thread([raw] {
    raw->server.listen_after_bind();
    raw->listener_done = true;
  });
  return std::unique_ptr<HttpEndpoint>(new HttpEndpoint(std::move(impl)));
}

int HttpEndpoint::Port() const { return impl_->port; }

void HttpEndpoint::Stop() {
  if (!impl_->listener.joinable()) return;
  impl_->stopping = true;
  // The server stops only once it listens: a stop that came before would be
  // lost and the listener would wait for connections for ever.
  while (!impl_->server.is_running() && !impl_->listener_done) platform::SleepMillis(1);
  impl_->server.stop();
  impl_->listener.join();
}

}  // namespace framework
