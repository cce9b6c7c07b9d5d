// The agent's HTTP endpoint, end to end: a real kzqagent with a real kzqcoll
// replaying rows and a real errorlog, read over HTTP by this test, by
// kzqctl, by a Prometheus server and by a browser.
#include <httplib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#ifndef _WIN32
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "kzq/errorlog_state.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/errorlog_writer.h"
#include "tests/support/eventually.h"
#ifndef _WIN32
#include "tests/support/free_port.h"
#endif
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"

namespace {

using Json = nlohmann::json;
using testing::HasSubstr;

using kzq_test::Eventually;  // its minute of patience covers process starts under Wine

const kzq_test::LogClock kLogStart{2026, 11, 23, 9, 0, 0, 0};

// One running agent and the port its endpoint took.
struct RunningAgent {
  std::unique_ptr<platform::ChildProcess> process;
  std::string output;
  std::string scheme = "http";
  int port = 0;
  std::string Url() const { return scheme + "://127.0.0.1:" + std::to_string(port); }
};

// A user of the web configurations below: the password of a published
// bcrypt test vector (cost 5, quick to check).
const char kUser[] = "prometheus";
const char kPassword[] = "U*U";
const char kPasswordHash[] = "$2a$05$CCCCCCCCCCCCCCCCCCCCC.E5YPO9kmyuRGyh0XouQYb4YMJKvyOeW";

// Follows an event stream on a thread of its own and keeps every event.
class EventConsumer {
 public:
  // With `last_event_id`, it reconnects as a consumer that had every event
  // up to that one.
  EventConsumer(const std::string& url, const std::string& path, const std::string& last_event_id = "")
      : client_(url) {
    client_.set_read_timeout(120);
    httplib::Headers headers;
    if (!last_event_id.empty()) headers.emplace("Last-Event-ID", last_event_id);
    thread_ = std::thread([this, path, headers] {
      std::string pending;
      client_.Get(path, headers, [&](const char* data, size_t length) {
        pending.append(data, length);
        for (size_t end; (end = pending.find("\n\n")) != std::string::npos; pending.erase(0, end + 2))
          TakeFrame(pending.substr(0, end));
        return !leaving_;
      });
    });
  }

  ~EventConsumer() { Leave(); }
  void Leave() {
    leaving_ = true;
    if (thread_.joinable()) thread_.join();
  }
  // After the agent's end: reads what reached the connection to its close.
  void ReadToTheEnd() {
    if (thread_.joinable()) thread_.join();
  }
  bool Subscribed() {
    std::lock_guard<std::mutex> guard(lock_);
    return subscribed_;
  }
  std::vector<Json> Events() {
    std::lock_guard<std::mutex> guard(lock_);
    return events_;
  }
  std::string LastEventId() {
    std::lock_guard<std::mutex> guard(lock_);
    return last_event_id_;
  }
  std::vector<std::string> Messages() {
    std::lock_guard<std::mutex> guard(lock_);
    std::vector<std::string> texts;
    for (const Json& e : events_) texts.push_back(e.value("UMSGTEXT", ""));
    return texts;
  }

 private:
  void TakeFrame(const std::string& frame) {
    std::lock_guard<std::mutex> guard(lock_);
    if (frame.rfind(": subscribed", 0) == 0) subscribed_ = true;
    std::istringstream lines(frame);
    for (std::string line; std::getline(lines, line);) {
      if (line.rfind("id: ", 0) == 0) last_event_id_ = line.substr(4);
      if (line.rfind("data: ", 0) == 0) events_.push_back(Json::parse(line.substr(6)));
    }
  }

  httplib::Client client_;
  std::thread thread_;
  std::atomic<bool> leaving_{false};
  std::mutex lock_;
  bool subscribed_ = false;
  std::vector<Json> events_;
  std::string last_event_id_;
};

class Http : public testing::Test {
 protected:
  void SetUp() override {
    platform::SetEnv("COLL_HOME", home_.Path());
    platform::SetEnv("KVCLOGDIR", home_.Path());
    platform::SetEnv("COLL_VERSION", "kvh");
    platform::SetEnv("COLL_ERRORLOG", log_.File("ERRORLOG"));
    platform::SetEnv("COLL_ALERT_SEV", "");
    platform::SetEnv("KZQ_RUNTIME_DIR", runtime_.Path());
    platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:0");
    platform::SetEnv("KZQ_HTTP_TOKEN", "");
    platform::SetEnv("KZQ_WEB_CONFIG", "");
    platform::SetEnv("KZQ_SAMPLE_INTERVAL", "1");
    platform::SetEnv("COLL_PREFIX", "kzq");
    platform::SetEnv("WAIT_TIMEOUT", "");
    kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"),
                        R"({"SERVERID": "SQL1", "HOSTNAME": "db01", "DBNAME": "master", "DBSIZE": 6})"
                        "\n"
                        R"({"SERVERID": "SQL1", "HOSTNAME": "db01", "DBNAME": "sales", "DBSIZE": 20480})"
                        "\n");
    log_writer_ = std::make_unique<kzq_test::ErrorlogWriter>(
        kzq_test::ErrorlogWriter::Create(log_.File("ERRORLOG"), kLogStart));
    // Events start from here, whenever the monitor starts watching.
    const long size = static_cast<long>(kzq_test::ReadFile(log_.File("ERRORLOG")).size());
    ASSERT_TRUE(kzq::WriteResumePoint(StateFile(), {u"2026-11-23", u"09:00:00.00", size, 3}));
    StartCollector();
  }
  void TearDown() override {
    kzq_test::Stop(collector_);
    KillAgent();
  }
  void KillAgent() { kzq_test::Stop(agent_.process); }

  // Waits for `done`; every two seconds an informational line changes the
  // log, since lines written before the monitor watched are read with the
  // next change (no error is added, so none can be invented).
  template <typename F>
  bool ArrivesWithChanges(F done) {
    int polls = 0;
    return Eventually([&] {
      if (done()) return true;
      if (++polls % 100 == 0) log_writer_->Info("Backup", "Log was backed up.");
      return false;
    });
  }

  std::string StateFile() const {
    return kzq::ErrorStateFilePath(home_.Path(), "kvh", platform::GetEnv("COLL_SERVERID").value());
  }

  void StartCollector() { collector_ = kzq_test::StartReplayCollector(replay_.Path(), home_.File("kzqcoll.out")); }

  // Starts kzqagent -console and waits for its endpoint's line.
  RunningAgent StartAgent(const std::string& name = "agent", const std::string& scheme = "http") {
    RunningAgent agent;
    agent.scheme = scheme;
    agent.output = home_.File(name + ".out");
    int error = 0;
    agent.process = platform::StartProcess({kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"}, &error,
                                           {agent.output});
    EXPECT_NE(agent.process, nullptr) << error;
    const std::string marker = "HTTP endpoint on " + scheme + "://127.0.0.1:";
    Eventually([&] {
      const std::string text = kzq_test::ReadFile(agent.output);
      const size_t at = text.find(marker);
      if (at != std::string::npos) agent.port = atoi(text.c_str() + at + marker.size());
      return agent.port > 0;
    });
    EXPECT_GT(agent.port, 0) << kzq_test::ReadFile(agent.output);
    return agent;
  }

  static Json GetJson(const std::string& url, const std::string& path, int expected_status = 200) {
    httplib::Client client(url);
    client.set_read_timeout(60);
    auto result = client.Get(path);
    EXPECT_TRUE(result) << path;
    if (!result) return Json();
    EXPECT_EQ(result->status, expected_status) << path << ": " << result->body;
    return Json::parse(result->body, nullptr, false);
  }

  // Rows enough for an answer of many chunks.
  static std::string ManyDatabases(int count) {
    std::string rows;
    for (int i = 0; i < count; ++i)
      rows += R"({"SERVERID": "SQL1", "HOSTNAME": "db01", "DBNAME": "db)" + std::to_string(i) + R"(", "DBSIZE": )" +
              std::to_string(i) + "}\n";
    return rows;
  }

  // The rows of a fresh sample; none when it failed (503).
  static size_t DatabaseRows(const std::string& url) {
    httplib::Client client(url);
    client.set_read_timeout(60);
    auto result = client.Get("/tables/KZQDBD");
    EXPECT_TRUE(result && (result->status == 200 || result->status == 503));
    const Json sample = result ? Json::parse(result->body, nullptr, false) : Json();
    return sample.is_object() ? sample["rows"].size() : 0;
  }

  // The agent's scheduler has sampled every table once.
  static bool Sampled(const std::string& url) {
    const Json status = GetJson(url, "/status");
    for (const Json& t : status["tables"])
      if (t["taken_at"].is_null()) return false;
    return status["tables"].size() == 33;
  }

  kzq_test::TempDir home_, runtime_, replay_, log_;
  std::unique_ptr<kzq_test::ErrorlogWriter> log_writer_;
  std::unique_ptr<platform::ChildProcess> collector_;
  RunningAgent agent_;
};

// Runs kzqctl with the arguments ('|' between them); its exit code, output in *text.
int Kzqctl(const std::string& arguments, const std::string& output, std::string* text) {
  std::vector<std::string> argv = {kzq_test::BuiltProgram("kzq", "kzqctl")};
  for (size_t start = 0, end; start < arguments.size(); start = end + 1) {
    end = arguments.find('|', start);
    if (end == std::string::npos) end = arguments.size();
    argv.push_back(arguments.substr(start, end - start));
  }
  return kzq_test::RunToEnd(argv, output, text);
}

TEST_F(Http, TablesSamplesFiltersAndMetricsAsJsonTextAndThroughKzqctl) {
  agent_ = StartAgent();
  const Json tables = GetJson(agent_.Url(), "/tables");
  ASSERT_EQ(tables.size(), 33u);
  EXPECT_EQ(tables[32]["name"], "kzqerror");
  EXPECT_EQ(tables[32]["sampling"], "pushed");

  const Json sample = GetJson(agent_.Url(), "/tables/kzqdbd");
  ASSERT_EQ(sample["rows"].size(), 2u) << sample.dump();
  EXPECT_EQ(sample["table"], "KZQDBD");
  EXPECT_EQ(sample["rows"][0]["DBNAME"], "master");
  EXPECT_EQ(sample["rows"][1]["DBSIZE"], 20480);
  EXPECT_EQ(sample["rows"][1]["OWNER"], "");
  // Time stamps keep their text and gain ISO 8601 in local time.
  const std::string stamp = sample["rows"][0]["TIMESTAMP"];
  EXPECT_THAT(sample["rows"][0]["TIMESTAMP_ISO"].get<std::string>(),
              testing::MatchesRegex("20" + stamp.substr(1, 2) + "-" + stamp.substr(3, 2) + "-" + stamp.substr(5, 2) +
                                    "T" + stamp.substr(7, 2) + ":" + stamp.substr(9, 2) + ":" + stamp.substr(11, 2) +
                                    "\\." + stamp.substr(13, 3) + "...:.."))
      << sample["rows"][0].dump();
  EXPECT_FALSE(sample["rows"][0].contains("DBNAME_ISO"));
  // What the scheduler last took, at no cost to the collector.
  ASSERT_TRUE(Eventually([&] { return Sampled(agent_.Url()); }));
  const Json cached = GetJson(agent_.Url(), "/tables/KZQDBD?cached");
  EXPECT_EQ(cached["rows"].size(), 2u);
  EXPECT_EQ(cached["cached"], true);
  EXPECT_THAT(GetJson(agent_.Url(), "/tables/KZQDBD?cached&filter=DBSIZE%20GT%201", 400)["error"].get<std::string>(),
              HasSubstr("fresh sample"));

  const Json filtered = GetJson(agent_.Url(), "/tables/KZQDBD?filter=DBSIZE%20GT%20100%20AND%20DBNAME%20LIKE%20'sal%25'");
  ASSERT_EQ(filtered["rows"].size(), 1u) << filtered.dump();
  EXPECT_EQ(filtered["rows"][0]["DBNAME"], "sales");

  EXPECT_THAT(GetJson(agent_.Url(), "/tables/KZQDBD?filter=DBNAM%20EQ%201", 400)["error"].get<std::string>(),
              HasSubstr("unknown attribute 'DBNAM'"));
  EXPECT_THAT(GetJson(agent_.Url(), "/tables/KZQNOPE", 404)["error"].get<std::string>(), HasSubstr("KZQNOPE"));
  EXPECT_THAT(GetJson(agent_.Url(), "/events/KZQDBD", 404)["error"].get<std::string>(), HasSubstr("no events"));
  EXPECT_EQ(GetJson(agent_.Url(), "/nothing/here", 404)["error"], "no such resource: GET /nothing/here");

  // kzqctl reads the same agent, and says when there is none.
  std::string text;
  const std::string url = agent_.Url();
  EXPECT_EQ(Kzqctl("--url|" + url + "|tables", home_.File("ctl1"), &text), 0);
  EXPECT_THAT(text, HasSubstr("KZQERROR   pushed"));
  EXPECT_EQ(Kzqctl("--url|" + url + "|sample|KZQDBD|--filter|DBNAME EQ 'sales'|--columns|dbname,DBSIZE", home_.File("ctl2"), &text), 0);
  EXPECT_THAT(text, testing::ContainsRegex("DBNAME +DBSIZE"));
  EXPECT_THAT(text, testing::ContainsRegex("sales +20480"));
  EXPECT_THAT(text, testing::Not(HasSubstr("master")));
  EXPECT_EQ(Kzqctl("--url|" + url + "|sample|KZQDBD|--json", home_.File("ctl3"), &text), 0);
  EXPECT_EQ(Json::parse(text)["rows"].size(), 2u);
  EXPECT_EQ(Kzqctl("--url|" + url + "|sample|KZQNOPE", home_.File("ctl4"), &text), 1);
  EXPECT_THAT(text, HasSubstr("the agent answered 404: unknown table 'KZQNOPE'"));

  // The metrics carry the scheduler's cached samples and the agent's health.
  ASSERT_TRUE(Eventually([&] { return Sampled(url); }));
  httplib::Client client(url);
  auto scrape = client.Get("/metrics");
  ASSERT_TRUE(scrape);
  EXPECT_EQ(scrape->get_header_value("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  const std::string server = "server_id=\"" + platform::GetEnv("COLL_SERVERID").value() + "\"";
  EXPECT_THAT(scrape->body, HasSubstr("kzq_database_data_size_bytes{" + server + ",host="));
  EXPECT_THAT(scrape->body, HasSubstr(",database=\"sales\"} 21474836480\n"));  // 20480 MB
  EXPECT_THAT(scrape->body, testing::Not(HasSubstr("kzq_kzqdbd_")));  // the raw gauges only on request
  EXPECT_THAT(scrape->body, HasSubstr(",table=\"KZQDBD\"} 2\n"));  // kzq_sample_rows: both replayed rows
  EXPECT_THAT(scrape->body, HasSubstr("service=\"KZQCOLL1\"} "));
  EXPECT_THAT(scrape->body, HasSubstr("kzq_build_info{" + server));
  EXPECT_THAT(scrape->body, HasSubstr("\nprocess_resident_memory_bytes{" + server));
  // Probes need no token and say whether every table has been sampled.
  EXPECT_EQ(client.Get("/-/healthy")->status, 200);
  EXPECT_EQ(client.Get("/-/ready")->status, 200);
#ifndef _WIN32
  EXPECT_THAT(scrape->body, HasSubstr("service=\"KZQCOLL1\"} 1\n"));  // its pid file says it runs
  kzq_test::WriteFile(home_.File("scrape.txt"), scrape->body);
  const int promtool = system(("promtool check metrics < " + home_.File("scrape.txt")).c_str());
  EXPECT_EQ(promtool, 0) << "promtool check metrics found problems";
#endif
  KillAgent();
  EXPECT_EQ(Kzqctl("--url|" + url + "|tables", home_.File("ctl5"), &text), 1);
  EXPECT_THAT(text, HasSubstr("no agent answers at " + url));
}

// Each consumer gets every error once, also when the server cycles its log
// meanwhile: what it wrote to the old log just before, and the new log from
// its start, though that is far shorter than the offset read in the old one.
TEST_F(Http, TwoEventConsumersEachReceiveEveryErrorOnceAcrossALogCycle) {
  agent_ = StartAgent();
  EventConsumer first(agent_.Url(), "/events/KZQERROR");
  EventConsumer second(agent_.Url(), "/events/kzqerror");
  ASSERT_TRUE(Eventually([&] { return first.Subscribed() && second.Subscribed(); }))
      << kzq_test::ReadFile(agent_.output);
  log_writer_->InfoLines(100).Advance(1).Error("spid51", 9002, 17, 2, "The transaction log for database 'sales' is full.");
  log_writer_->Advance(1).Error("Logon", 18456, 14, 5, "Login failed for user 'sa'.");  // below 17
  log_writer_->Advance(1).Error("spid7s", 823, 24, 2, "The operating system returned error 21 to SQL Server.");
  std::vector<std::string> expected = {"The transaction log for database 'sales' is full.",
                                       "The operating system returned error 21 to SQL Server."};
  EXPECT_TRUE(ArrivesWithChanges([&] { return first.Messages().size() >= 2 && second.Messages().size() >= 2; }))
      << kzq_test::ReadFile(agent_.output);
  // An error sent wrongly (the one below the minimum, one twice) would
  // have come before the last.
  EXPECT_EQ(first.Messages(), expected);
  EXPECT_EQ(second.Messages(), expected);
  const Json event = first.Events()[0];
  EXPECT_EQ(event["ERRORID"], "9002");
  EXPECT_EQ(event["SEVERITY"], 17);
  EXPECT_EQ(event["SQLSTATE"], 2);
  EXPECT_EQ(event["MSGISSUER"], "spid51");
  EXPECT_EQ(event["MSGTIME"], "1261123090001000");
  EXPECT_GE(event["MSGAGE"].get<int>(), 0);

  log_writer_->Advance(1).Error("spid52", 9002, 17, 2, "The transaction log for database 'hr' is full.");
  *log_writer_ = kzq_test::ErrorlogWriter::Cycle(log_.File("ERRORLOG"), log_writer_->Advance(1).Clock());
  log_writer_->Error("spid53", 3041, 17, 1, "BACKUP failed to complete the command BACKUP LOG hr.");
  ASSERT_TRUE(ArrivesWithChanges([&] { return first.Messages().size() >= 4; })) << kzq_test::ReadFile(agent_.output);
  log_writer_->Advance(1).Error("spid54", 824, 24, 2, "SQL Server detected a logical consistency-based I/O error.");
  ASSERT_TRUE(ArrivesWithChanges([&] { return first.Messages().size() >= 5 && second.Messages().size() >= 5; }));
  expected.insert(expected.end(), {"The transaction log for database 'hr' is full.",
                                   "BACKUP failed to complete the command BACKUP LOG hr.",
                                   "SQL Server detected a logical consistency-based I/O error."});
  EXPECT_EQ(first.Messages(), expected);
  EXPECT_EQ(second.Messages(), expected);
  // The monitor's and the channel's counters say what they went through:
  // reads, the one cycle, no overflow or failed write; exchanges with the
  // collector. (The resume point this test starts from names the log's end:
  // a monitor whose first read comes before the test's first lines finds no
  // line there and reads the log from its start once; one that comes after
  // finds the first of them, which carries the point's time.)
  httplib::Client client(agent_.Url());
  auto scrape = client.Get("/metrics");
  ASSERT_TRUE(scrape);
  const auto counted = [&scrape](const std::string& family, const std::string& value) {
    return std::regex_search(scrape->body, std::regex("\n" + family + "\\{server_id=[^}]*\\} " + value + "\n"));
  };
  EXPECT_THAT(scrape->body, HasSubstr("# TYPE kzq_errorlog_reads_total counter\n"));
  EXPECT_TRUE(counted("kzq_errorlog_reads_total", "[1-9][0-9]*")) << scrape->body;
  EXPECT_TRUE(counted("kzq_errorlog_cycles_total", "1")) << scrape->body;
  EXPECT_TRUE(counted("kzq_errorlog_truncations_total", "[01]")) << scrape->body;
  for (const char* trouble : {"kzq_errorlog_watch_overflows_total", "kzq_errorlog_state_write_failures_total",
                              "kzq_channel_refused_answers_total", "kzq_channel_header_repairs_total"})
    EXPECT_TRUE(counted(trouble, "0")) << trouble;
  EXPECT_TRUE(counted("kzq_channel_exchanges_total", "[1-9][0-9]*")) << scrape->body;
}

// Errors already in the log at a first start are not news: the scheduler's
// report samples read them, and a consumer gets only what is written from
// then on. The resume point outlives the agent: errors written while it was
// killed arrive with the log's next change after its restart, and none of
// the earlier ones again. (Each check waits for the error written last:
// one sent wrongly would have come before it.)
TEST_F(Http, OldErrorsAreNoNewsButThoseWrittenWhileTheAgentWasKilledAre) {
  log_writer_->Advance(1).Error("spid51", 9002, 17, 2, "old: the log for 'sales' is full.");
  log_writer_->Advance(1).Error("spid52", 823, 24, 2, "old: I/O error 1117.").InfoLines(40);
  std::filesystem::remove(StateFile());  // a first start: nothing before it counts as missed
  agent_ = StartAgent();
  ASSERT_TRUE(Eventually([&] { return Sampled(agent_.Url()); }));
  {
    EventConsumer consumer(agent_.Url(), "/events/KZQERROR");
    ASSERT_TRUE(Eventually([&] { return consumer.Subscribed(); }));
    // A first start saves where the log ends at once: a kill before the
    // first event must not make the errors written while down old news.
    const std::string start_point = kzq_test::ReadFile(StateFile());
    ASSERT_FALSE(start_point.empty());
    log_writer_->Advance(1).Error("spid53", 1105, 17, 2, "new: Could not allocate space in 'sales'.");
    ASSERT_TRUE(ArrivesWithChanges([&] { return !consumer.Messages().empty(); }));
    // Killed between a delivery and its save, an agent tells that one event
    // again by design; this kill comes after the save.
    ASSERT_TRUE(Eventually([&] { return kzq_test::ReadFile(StateFile()) != start_point; }));
    KillAgent();
    EXPECT_EQ(consumer.Messages(), std::vector<std::string>{"new: Could not allocate space in 'sales'."});
  }
  log_writer_->Advance(1).Error("spid52", 9002, 17, 2, "The transaction log for database 'hr' is full.");
  log_writer_->Advance(1).Error("spid53", 824, 24, 2, "SQL Server detected a logical consistency-based I/O error.");
  agent_ = StartAgent("restarted");
  EventConsumer consumer(agent_.Url(), "/events/KZQERROR");
  ASSERT_TRUE(Eventually([&] { return consumer.Subscribed(); }));
  log_writer_->Advance(1).Error("spid54", 3041, 17, 1, "BACKUP failed to complete the command BACKUP LOG hr.");
  ASSERT_TRUE(ArrivesWithChanges([&] { return consumer.Messages().size() >= 3; })) << testing::PrintToString(consumer.Messages()) << kzq_test::ReadFile(agent_.output);
  EXPECT_EQ(consumer.Messages(), (std::vector<std::string>{"The transaction log for database 'hr' is full.",
                                                           "SQL Server detected a logical consistency-based I/O error.",
                                                           "BACKUP failed to complete the command BACKUP LOG hr."}));
}

#ifndef _WIN32
// The error numbers a consumer received, each with how often.
std::map<long, int> CountByNumber(const std::vector<Json>& events) {
  std::map<long, int> counts;
  for (const Json& e : events) ++counts[std::stol(e.value("ERRORID", "0"))];
  return counts;
}

// Errors `first` to `first + count - 1`, each with its message line.
std::string ErrorBlock(const kzq_test::LogClock& time, long first, int count) {
  std::vector<std::string> texts;
  for (long n = first; n < first + count; ++n) {
    texts.push_back(kzq_demo::ErrorNumbersText(n, 17, 1));
    texts.push_back("error number " + std::to_string(n));
  }
  return kzq_demo::LogLines(time, "spid51", texts);
}

// The agent killed (SIGKILL, TerminateProcess) while it delivers a large
// write and while errors trickle in, then restarted, and at last restarted
// with a state file that no longer means anything (the whole log is read
// again). A consumer that reconnects with the last event id it had, as
// server-sent-events consumers do, gets every error exactly once.
// Not under Wine: a process it terminates keeps its connections open for
// about a minute and may drop what it had written to them, which no real
// system does, so the test could not tell the agent's faults from Wine's.
TEST_F(Http, AKilledAgentLosesNoErrorAndRepeatsNone) {
  constexpr int kBlock = 1500, kTrickle = 100;
  std::vector<Json> received;
  std::string last_id;
  // A consumer of a killed agent reads on to the connection's end: what
  // the agent wrote before it died is the consumer's, and the agent has
  // moved its resume point past it.
  const auto keep = [&](EventConsumer& consumer, bool agent_killed) {
    if (agent_killed)
      consumer.ReadToTheEnd();
    else
      consumer.Leave();
    for (const Json& e : consumer.Events()) received.push_back(e);
    if (!consumer.LastEventId().empty()) last_id = consumer.LastEventId();
  };
  {  // a large write, killed once a tenth of it has arrived
    agent_ = StartAgent("block");
    EventConsumer consumer(agent_.Url(), "/events/KZQERROR");
    ASSERT_TRUE(Eventually([&] { return consumer.Subscribed(); }));
    log_writer_->Advance(1).Bytes(ErrorBlock(log_writer_->Clock(), 100000, kBlock));
    ASSERT_TRUE(Eventually([&] { return consumer.Events().size() >= kBlock / 10; }));
    KillAgent();
    keep(consumer, true);
  }
  {  // restarted: the rest of the block, then a trickle killed half-way
    agent_ = StartAgent("trickle");
    EventConsumer consumer(agent_.Url(), "/events/KZQERROR", last_id);
    ASSERT_TRUE(Eventually([&] { return consumer.Subscribed(); }));
    for (int i = 0; i < kTrickle / 2; ++i)
      log_writer_->Advance(1).Bytes(ErrorBlock(log_writer_->Clock(), 200000 + i, 1));
    ASSERT_TRUE(ArrivesWithChanges([&] { return received.size() + consumer.Events().size() >= kBlock; }));
    KillAgent();
    keep(consumer, true);
  }
  for (int i = kTrickle / 2; i < kTrickle; ++i)
    log_writer_->Advance(1).Bytes(ErrorBlock(log_writer_->Clock(), 200000 + i, 1));
  ASSERT_TRUE(kzq::WriteResumePoint(StateFile(), {u"2026-01-01", u"00:00:00.00", 12345, 3}));
  agent_ = StartAgent("last");
  EventConsumer consumer(agent_.Url(), "/events/KZQERROR", last_id);
  ASSERT_TRUE(Eventually([&] { return consumer.Subscribed(); }));
  log_writer_->Advance(1).Bytes(ErrorBlock(log_writer_->Clock(), 300000, 1));
  ASSERT_TRUE(ArrivesWithChanges([&] { return CountByNumber(consumer.Events()).count(300000) == 1; }))
      << kzq_test::ReadFile(agent_.output);
  keep(consumer, false);
  const std::map<long, int> counts = CountByNumber(received);
  int missing = 0, repeated = 0;
  for (long n = 100000; n < 100000 + kBlock; ++n) missing += counts.count(n) == 0 ? 1 : 0;
  for (long n = 200000; n < 200000 + kTrickle; ++n) missing += counts.count(n) == 0 ? 1 : 0;
  for (const auto& [number, times] : counts) repeated += times - 1;
  EXPECT_EQ(missing, 0);
  EXPECT_EQ(repeated, 0);
  EXPECT_EQ(counts.size(), static_cast<size_t>(kBlock + kTrickle + 1));
}
#endif

TEST_F(Http, ATokenGuardsEveryEndpointAndActionsNeedOne) {
  agent_ = StartAgent();
  httplib::Client open(agent_.Url());
  auto refused = open.Post("/actions", R"({"command": "echo hi"})", "application/json");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 403);
  EXPECT_THAT(refused->body, HasSubstr("KZQ_HTTP_TOKEN"));
  // A web page that had a browser resolve its own name to the agent's
  // loopback address (DNS rebinding) sends that name: refused, counted.
  const std::string port = std::to_string(agent_.port);
  for (const std::string& host : {"attacker.example:" + port, "127.0.0.1.attacker.example:" + port, std::string("[::2]")})
    EXPECT_EQ(open.Get("/tables", {{"Host", host}})->status, 403) << host;
  for (const std::string& host : {"localhost:" + port, "127.0.0.1:" + port, std::string("[::1]:") + port})
    EXPECT_EQ(open.Get("/tables", {{"Host", host}})->status, 200) << host;
  EXPECT_THAT(open.Get("/metrics")->body, HasSubstr(R"(reason="host"} 3)"));
  KillAgent();

  platform::SetEnv("KZQ_HTTP_TOKEN", "t0ken");
  agent_ = StartAgent("guarded");
  httplib::Client anonymous(agent_.Url());
  for (const char* path : {"/", "/tables", "/metrics", "/status", "/events/KZQERROR"}) {
    auto result = anonymous.Get(path);
    ASSERT_TRUE(result) << path;
    EXPECT_EQ(result->status, 401) << path;
    EXPECT_EQ(result->get_header_value("WWW-Authenticate"), "Bearer");
  }
  httplib::Client wrong(agent_.Url());
  wrong.set_bearer_token_auth("t0kem");
  EXPECT_EQ(wrong.Get("/tables")->status, 401);
  EXPECT_EQ(wrong.Get("/tables", {{"Authorization", "Bearer t0ken "}})->status, 401);
  httplib::Client holder(agent_.Url());
  holder.set_bearer_token_auth("t0ken");
  EXPECT_EQ(holder.Get("/tables")->status, 200);
  EXPECT_THAT(holder.Get("/metrics")->body, HasSubstr(R"(reason="token"} 7)"));
  EXPECT_EQ(anonymous.Get("/tables?access_token=t0ken")->status, 200);
  EXPECT_EQ(anonymous.Post("/actions?access_token=t0ken", R"({"command": "echo hi"})", "application/json")->status,
            401);
  EXPECT_EQ(holder.Post("/actions", R"({"command": 42})", "application/json")->status, 400);
  auto action = holder.Post("/actions", R"({"command": "echo hello from kzq"})", "application/json");
  ASSERT_TRUE(action);
  ASSERT_EQ(action->status, 200) << action->body;
  const Json answer = Json::parse(action->body);
  ASSERT_EQ(answer["lines"].size(), 1u) << action->body;
  EXPECT_EQ(answer["lines"][0]["id"], "KVCACT002");
  EXPECT_EQ(answer["lines"][0]["line"], "hello from kzq");
  EXPECT_EQ(answer["lines"][0]["title"], "Database Action");
  std::string text;
  const std::string ctl = "--url|" + agent_.Url() + "|--token|t0ken|action|";
  EXPECT_EQ(Kzqctl(ctl + "echo hello from kzqctl", home_.File("action1"), &text), 0) << text;
  EXPECT_THAT(text, HasSubstr("hello from kzqctl"));
  EXPECT_EQ(Kzqctl(ctl + "kzq_no_such_command", home_.File("action2"), &text), 1) << text;
  EXPECT_THAT(text, HasSubstr("kzqctl: the command ended with "));  // -1 here, the shell's 9009 on Windows
}

// The web configuration's users read the endpoint beside the token; a bad
// password is told apart from none in the counters, and a file the agent
// cannot honour stops the start, naming its line.
TEST_F(Http, BasicAuthUsersFromTheWebConfigBesideTheToken) {
  const std::string config = home_.File("web.yml");
  kzq_test::WriteFile(config, "basic_auth_users:\n  prometheus: $2a$05$tooshort\n");
  platform::SetEnv("KZQ_WEB_CONFIG", config);
  int error = 0;
  auto refused = platform::StartProcess({kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"}, &error,
                                        {home_.File("refused.out")});
  ASSERT_NE(refused, nullptr) << error;
  EXPECT_EQ(refused->Wait(), 2);
  const std::string reason = "KZQ_WEB_CONFIG: " + config + ":2: the password hash of user 'prometheus'";
  EXPECT_THAT(kzq_test::ReadFile(home_.File("refused.out")), HasSubstr(reason));
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr("KXA0001E"));
#ifdef _WIN32
  // No TLS in this build: asked for, it stops the start rather than serve
  // in the clear.
  kzq_test::WriteFile(config, "tls_server_config:\n  cert_file: a.crt\n  key_file: a.key\n");
  refused = platform::StartProcess({kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"}, &error,
                                   {home_.File("tls.out")});
  ASSERT_NE(refused, nullptr) << error;
  EXPECT_EQ(refused->Wait(), 2);
  EXPECT_THAT(kzq_test::ReadFile(home_.File("tls.out")), HasSubstr("TLS is not available in the Windows build"));
#endif

  kzq_test::WriteFile(config, std::string("basic_auth_users:\n  ") + kUser + ": " + kPasswordHash + "\n");
  platform::SetEnv("KZQ_HTTP_TOKEN", "t0ken");
  agent_ = StartAgent();
  httplib::Client anonymous(agent_.Url());
  auto refusal = anonymous.Get("/tables");
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->status, 401);
  std::vector<std::string> challenges;
  for (auto [at, end] = refusal->headers.equal_range("WWW-Authenticate"); at != end; ++at)
    challenges.push_back(at->second);
  EXPECT_THAT(challenges, testing::UnorderedElementsAre("Basic realm=\"kzq\"", "Bearer"));

  httplib::Client user(agent_.Url());
  user.set_basic_auth(kUser, kPassword);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(user.Get("/tables")->status, 200);  // the second on: verified before
  httplib::Client wrong(agent_.Url());
  wrong.set_basic_auth(kUser, "U*U*");
  EXPECT_EQ(wrong.Get("/tables")->status, 401);
  httplib::Client stranger(agent_.Url());
  stranger.set_basic_auth("nobody", kPassword);
  EXPECT_EQ(stranger.Get("/tables")->status, 401);
  httplib::Client holder(agent_.Url());
  holder.set_bearer_token_auth("t0ken");
  EXPECT_EQ(holder.Get("/tables")->status, 200);
  // A scraper's password runs no commands on the database host.
  auto action = user.Post("/actions", R"({"command": "echo hi"})", "application/json");
  ASSERT_TRUE(action);
  EXPECT_EQ(action->status, 403);
  EXPECT_THAT(action->body, HasSubstr("bearer token"));
  const std::string metrics = user.Get("/metrics")->body;
  EXPECT_THAT(metrics, HasSubstr(R"(reason="auth"} 2)"));
  EXPECT_THAT(metrics, HasSubstr(R"(reason="token"} 1)"));
}

// Neither program may look as if it ran when it cannot serve: each ends
// with an exit code and says why in the log an operator reads.
TEST_F(Http, AStartThatCannotServeEndsAndSaysWhyInColLog) {
  platform::SetEnv("KZQ_HTTP_LISTEN", "0.0.0.0:0");
  const std::vector<std::string> agent = {kzq_test::BuiltProgram("kzq", "kzqagent"), "-console"};
  std::string said;
  EXPECT_EQ(kzq_test::RunToEnd(agent, home_.File("open.out"), &said), 2);
  const std::string reason = "refusing to listen on 0.0.0.0 without KZQ_HTTP_TOKEN";
  EXPECT_THAT(said, HasSubstr(reason));
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr("KXA0001E"));
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr(reason));

  // A second agent on the address of a running one: two instances must
  // never share a port and split its requests between them.
  platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:0");
  agent_ = StartAgent("first");
  platform::SetEnv("KZQ_HTTP_LISTEN", "127.0.0.1:" + std::to_string(agent_.port));
  // It also wraps col.log after its second line, as COLL_WRAPLINES says.
  const std::string server = platform::GetEnv("COLL_SERVERID").value_or("");
  platform::SetEnv("COLL_SERVERID", "second");
  platform::SetEnv("COLL_WRAPLINES", "2");
  EXPECT_EQ(kzq_test::RunToEnd(agent, home_.File("second.out"), &said), 2) << said;
  platform::SetEnv("COLL_SERVERID", server);
  platform::SetEnv("COLL_WRAPLINES", "");
  const std::string wrapped = kzq_test::ReadFile(home_.File("col.log"));
  EXPECT_THAT(wrapped, HasSubstr("cannot listen on 127.0.0.1:" + std::to_string(agent_.port)));
  EXPECT_THAT(wrapped, HasSubstr("File wrapped"));
  EXPECT_THAT(wrapped, testing::Not(HasSubstr("refusing to listen on 0.0.0.0")));  // the lines before the wrap are gone

  kzq_test::WriteFile(replay_.File("kzqdbs.jsonl"), "{\"NOSUCH\": 1}\n");
  auto collector = kzq_test::StartReplayCollector(replay_.Path(), home_.File("kzqcoll.out"));
  ASSERT_NE(collector, nullptr);
  EXPECT_EQ(collector->Wait(), 3);
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr("COL0003E"));
  EXPECT_THAT(kzq_test::ReadFile(home_.File("col.log")), HasSubstr("kzqdbs.jsonl:1"));
}

// Whatever moment the collector dies at, a sample is either whole or empty
// and the agent keeps answering. Once it is gone, a consumer must see that
// the data cannot be had: no old series served as current, the failed
// samples counted, a fresh read answered 503 with the reason, kzqctl ending
// non-zero. A new collector is used without a restart.
TEST_F(Http, ACollectorKilledMidAnswerCostsSamplesNotTheAgentAndShowsAsFailure) {
  kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"), ManyDatabases(400));
  kzq_test::Stop(collector_);
  StartCollector();
  // Once an exchange has gone unanswered with the collector down, the
  // others fail at once: the failure shows within one wait, not after a
  // round of 33 (more than ten minutes at this wait).
  platform::SetEnv("WAIT_TIMEOUT", "20");
  constexpr uint64_t kOneWaitMs = 20000 + 20000;
  agent_ = StartAgent();
  const auto scrape = [&] {
    httplib::Client client(agent_.Url());
    auto answer = client.Get("/metrics");
    return answer ? answer->body : std::string();
  };
  ASSERT_TRUE(Eventually([&] { return DatabaseRows(agent_.Url()) == 400; }));
  ASSERT_TRUE(Eventually([&] { return scrape().find("kzq_database_data_size_bytes{") != std::string::npos; }));
  for (int delay_ms : {5, 60}) {
    std::atomic<size_t> rows{99999};
    std::thread sample([&] { rows = DatabaseRows(agent_.Url()); });
    platform::SleepMillis(static_cast<uint32_t>(delay_ms));
    kzq_test::Stop(collector_);
    sample.join();
    EXPECT_TRUE(rows == 0 || rows == 400) << rows << " rows after " << delay_ms << " ms";
    EXPECT_EQ(GetJson(agent_.Url(), "/tables").size(), 33u);  // still serving
    if (delay_ms == 5) {
      // Every collector table's failure is counted and KZQDBD's series are gone.
      const std::regex failed_table("kzq_sample_errors_total\\{[^}]*\\} [1-9]");
      std::string metrics;
      EXPECT_TRUE(Eventually([&] {
        metrics = scrape();
        const auto failures = std::distance(std::sregex_iterator(metrics.begin(), metrics.end(), failed_table),
                                            std::sregex_iterator());
        return failures == 32 && metrics.find("kzq_database_data_size_bytes") == std::string::npos;
      }, kOneWaitMs)) << metrics;
      EXPECT_TRUE(std::regex_search(metrics, std::regex("kzq_channel_skipped_total\\{[^}]*\\} [1-9]"))) << metrics;
      const Json failed = GetJson(agent_.Url(), "/tables/KZQDBD", 503);
      EXPECT_EQ(failed["status"], "failed");
      // Not running, or the channel busy with the exchange tried every 30 s.
      EXPECT_THAT(failed["reason"].get<std::string>(), HasSubstr("collector"));
      std::string text;
      EXPECT_EQ(Kzqctl("--url|" + agent_.Url() + "|sample|KZQDBD", home_.File("ctl"), &text), 1);
      EXPECT_THAT(text, HasSubstr("the agent answered 503: "));
    }
    StartCollector();
    EXPECT_TRUE(Eventually([&] { return DatabaseRows(agent_.Url()) == 400; })) << "after " << delay_ms << " ms";
  }
}

}  // namespace

#ifndef _WIN32
// A Prometheus server and a browser run on Linux only.
namespace {

TEST_F(Http, APrometheusServerScrapesTheAgentsSeries) {
  platform::SetEnv("KZQ_METRICS_RAW", "1");  // the raw gauges beside the families
  agent_ = StartAgent();
  platform::SetEnv("KZQ_METRICS_RAW", "");
  const int port = kzq_test::FreePort();
  kzq_test::WriteFile(home_.File("prometheus.yml"),
                      "global: {scrape_interval: 1s, evaluation_interval: 1s}\n"
                      "scrape_configs:\n  - job_name: kzq\n    static_configs: [{targets: ['127.0.0.1:" +
                          std::to_string(agent_.port) + "']}]\n");
  auto prometheus = kzq_test::Start({"/usr/bin/prometheus", "--config.file=" + home_.File("prometheus.yml"),
                                     "--storage.tsdb.path=" + home_.File("tsdb"),
                                     "--web.listen-address=127.0.0.1:" + std::to_string(port)},
                                    home_.File("prometheus.out"));
  ASSERT_NE(prometheus, nullptr);
  httplib::Client client("http://127.0.0.1:" + std::to_string(port));
  Json answer;
  const bool found = Eventually([&] {
    auto result = client.Get("/api/v1/query?query=kzq_database_data_size_bytes%7Bdatabase%3D%22sales%22%7D");
    if (!result || result->status != 200) return false;
    answer = Json::parse(result->body, nullptr, false);
    return answer.is_object() && !answer["data"]["result"].empty();
  });
  kzq_test::Stop(prometheus);
  ASSERT_TRUE(found) << kzq_test::ReadFile(home_.File("prometheus.out"));
  const Json& series = answer["data"]["result"][0];
  EXPECT_EQ(series["value"][1], "21474836480");
  EXPECT_EQ(series["metric"]["job"], "kzq");
  EXPECT_EQ(series["metric"]["server_id"], platform::GetEnv("COLL_SERVERID").value());
  auto scrape = httplib::Client(agent_.Url()).Get("/metrics");
  ASSERT_TRUE(scrape);
  EXPECT_THAT(scrape->body, HasSubstr(",dbname=\"sales\"} 20480\n"));  // kzq_kzqdbd_dbsize, in MB
}

// A headless browser driven over its debugging pipe (fd 3 in, fd 4 out,
// messages ended by NUL).
class Browser {
 public:
  Browser() {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 3);
      dup2(out[1], 4);
      const int devnull = open("/dev/null", O_WRONLY);
      dup2(devnull, 1);
      dup2(devnull, 2);
      execl("/usr/bin/chromium", "chromium", "--headless", "--no-sandbox", "--disable-gpu",
            "--remote-debugging-pipe", "about:blank", static_cast<char*>(nullptr));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    to_ = in[1];
    from_ = out[0];
  }
  ~Browser() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(to_);
    close(from_);
  }

  bool Open(const std::string& url) {
    const Json target = Call("Target.createTarget", {{"url", url}});
    const Json attached =
        Call("Target.attachToTarget", {{"targetId", target.value("targetId", "")}, {"flatten", true}});
    session_ = attached.value("sessionId", "");
    return !session_.empty();
  }

  // The value of a JavaScript expression in the page.
  Json Evaluate(const std::string& expression) {
    return Call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}}, session_)["result"]["value"];
  }

 private:
  Json Call(const std::string& method, const Json& params, const std::string& session = "") {
    Json message = {{"id", ++last_id_}, {"method", method}, {"params", params}};
    if (!session.empty()) message["sessionId"] = session;
    const std::string text = message.dump() + '\0';
    if (write(to_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return Json();
    for (;;) {
      const size_t end = pending_.find('\0');
      if (end != std::string::npos) {
        const Json answer = Json::parse(pending_.substr(0, end), nullptr, false);
        pending_.erase(0, end + 1);
        if (answer.is_object() && answer.value("id", 0) == last_id_) return answer.value("result", Json::object());
        continue;
      }
      char buffer[65536];
      const ssize_t got = read(from_, buffer, sizeof buffer);
      if (got <= 0) return Json();
      pending_.append(buffer, static_cast<size_t>(got));
    }
  }

  pid_t pid_ = -1;
  int to_ = -1, from_ = -1;
  int last_id_ = 0;
  std::string session_;
  std::string pending_;
};

TEST_F(Http, TheStatusPageShowsServicesTablesAndANewErrorWithoutAReload) {
  agent_ = StartAgent();
  ASSERT_TRUE(Eventually([&] { return Sampled(agent_.Url()); }));
  Browser browser;
  ASSERT_TRUE(browser.Open(agent_.Url() + "/"));
  const std::string look =
      "JSON.stringify({services: document.querySelector('#services tbody').innerText,"
      " databases: document.querySelector('#databases tbody').innerText,"
      " blocking: document.getElementById('blocking').innerText,"
      " jobs: document.querySelector('#jobs tbody').innerText,"
      " tables: document.querySelectorAll('#tables tbody tr').length,"
      " events: document.querySelectorAll('#events tbody tr').length,"
      " live: Array.from(document.querySelectorAll('#events tr.live')).map(r => r.innerText)})";
  Json page;
  const auto seen = [&] {
    const Json value = browser.Evaluate(look);  // null while the page loads
    page = value.is_string() ? Json::parse(value.get<std::string>(), nullptr, false) : Json();
    return page.is_object();
  };
  ASSERT_TRUE(Eventually([&] { return seen() && page["tables"] == 33 && page["blocking"] != "loading..."; }))
      << page.dump();
  EXPECT_THAT(page["services"].get<std::string>(), testing::ContainsRegex("collector\\s+KZQCOLL1\\s+up"));
  EXPECT_THAT(page["services"].get<std::string>(), testing::ContainsRegex("sqlserver\\s+MSSQLSERVER\\s+down"));
  EXPECT_THAT(page["databases"].get<std::string>(), testing::ContainsRegex("sales\\s+ONLINE\\s+20480"));
  EXPECT_EQ(page["blocking"], "no session is blocked");
  EXPECT_EQ(page["jobs"], "no job failed its last run");
  const int events_before = page["events"];
  // The page's own event stream is open before the error is written.
  ASSERT_TRUE(Eventually([&] { return GetJson(agent_.Url(), "/status")["event_consumers"] == 1; }));
  log_writer_->Advance(1).Error("spid51", 9002, 17, 2, "The transaction log for database 'sales' is full.");
  ASSERT_TRUE(ArrivesWithChanges([&] { return seen() && page["live"].size() == 1; })) << page.dump();
  EXPECT_THAT(page["live"][0].get<std::string>(), HasSubstr("The transaction log for database 'sales' is full."));
  EXPECT_THAT(page["live"][0].get<std::string>(), HasSubstr("9002"));
  // Shown once, with its time as a date the reader knows, not the stamp.
  EXPECT_EQ(page["events"], events_before + 1);
  EXPECT_THAT(page["live"][0].get<std::string>(), testing::ContainsRegex("2026"));
  EXPECT_THAT(page["live"][0].get<std::string>(), testing::Not(HasSubstr("1261123")));
}

// A client no library would be: a plain blocking socket to the agent.
class RawClient {
 public:
  explicit RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const timeval patience{20, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }
  ~RawClient() { close(fd_); }
  bool Connected() const { return connected_; }
  bool Send(const std::string& bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // The answer's status line; "closed" when the agent closed without one.
  std::string StatusLine() {
    std::string text;
    char c;
    while (text.find("\r\n") == std::string::npos && recv(fd_, &c, 1, 0) == 1) text += c;
    return text.empty() ? "closed" : text.substr(0, text.find("\r\n"));
  }

 private:
  int fd_;
  bool connected_ = false;
};

// With tls_server_config the endpoint speaks only TLS, with the bounds of
// plain HTTP: a scrape and an event stream over TLS, a plain-HTTP client
// told to use https, a handshake that never ends cut at the request's
// deadline; kzqctl reaches it with the CA and a user.
TEST_F(Http, TlsFromTheWebConfigServesScrapesAndStreamsAndCutsSlowHandshakes) {
  const std::string cert = home_.File("server.crt");
  const std::string key = home_.File("server.key");
  int error = 0;
  auto openssl = platform::StartProcess(
      {"/usr/bin/openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout",
       key, "-out", cert, "-days", "1", "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1"},
      &error, {home_.File("openssl.out")});
  ASSERT_NE(openssl, nullptr) << error;
  ASSERT_EQ(openssl->Wait(), 0) << kzq_test::ReadFile(home_.File("openssl.out"));
  kzq_test::WriteFile(home_.File("web.yml"), std::string("tls_server_config:\n  cert_file: server.crt\n"
                                                         "  key_file: server.key\nbasic_auth_users:\n  ") +
                                                 kUser + ": " + kPasswordHash + "\n");
  platform::SetEnv("KZQ_WEB_CONFIG", home_.File("web.yml"));
  agent_ = StartAgent("tls", "https");

  httplib::SSLClient client("127.0.0.1", agent_.port);
  client.set_ca_cert_path(cert.c_str());
  client.enable_server_certificate_verification(true);
  client.set_basic_auth(kUser, kPassword);
  auto scrape = client.Get("/metrics");
  ASSERT_TRUE(scrape) << httplib::to_string(scrape.error());
  EXPECT_EQ(scrape->status, 200);
  EXPECT_THAT(scrape->body, HasSubstr("kzq_build_info{"));
  bool subscribed = false;
  client.Get("/events/KZQERROR", [&](const char* data, size_t length) {
    subscribed = std::string(data, length).find(": subscribed") != std::string::npos;
    return !subscribed;
  });
  EXPECT_TRUE(subscribed);

  httplib::Client plain("http://127.0.0.1:" + std::to_string(agent_.port));
  auto refused = plain.Get("/metrics");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 400);
  EXPECT_THAT(refused->body, HasSubstr("https://"));

  RawClient slow(agent_.port);
  ASSERT_TRUE(slow.Send(std::string("\x16\x03\x01", 3)));  // a handshake record that never comes whole
  EXPECT_EQ(slow.StatusLine(), "closed");
  std::string text;
  platform::SetEnv("KZQ_HTTP_PASSWORD", kPassword);
  EXPECT_EQ(Kzqctl("--url|" + agent_.Url() + "|--cacert|" + cert + "|--user|" + kUser + "|tables",
                   home_.File("ctl.out"), &text),
            0)
      << text;
  platform::SetEnv("KZQ_HTTP_PASSWORD", "");
  EXPECT_THAT(text, HasSubstr("KZQDBD"));
  const std::string metrics = client.Get("/metrics")->body;
  EXPECT_THAT(metrics, HasSubstr(R"(reason="tls"} 1)"));
  EXPECT_THAT(metrics, HasSubstr(R"(reason="deadline"} 1)"));
}

long RssKib(uint32_t pid) {
  std::istringstream status(kzq_test::ReadFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
  return -1;
}

// Clients that send slowly, send nothing, or come by the hundred cost the
// agent a socket each: a scrape is answered beside them, and a request that
// is not whole within its deadline is answered 408 however steadily its
// bytes trickle in.
TEST_F(Http, SlowIdleAndCrowdingClientsNeverHoldUpAScrape) {
  agent_ = StartAgent();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 100; ++i) {
    clients.push_back(std::make_unique<RawClient>(agent_.port));
    ASSERT_TRUE(clients.back()->Send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\nX-a: "));
  }
  for (int i = 0; i < 200; ++i) clients.push_back(std::make_unique<RawClient>(agent_.port));
  // Whole requests whose answers nobody reads.
  for (int i = 0; i < 300; ++i) {
    clients.push_back(std::make_unique<RawClient>(agent_.port));
    ASSERT_TRUE(clients.back()->Send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"));
  }
  for (const auto& c : clients) ASSERT_TRUE(c->Connected());
  GetJson(agent_.Url(), "/status");
  for (int second = 0; second < 11; ++second) {
    clients[0]->Send("a");
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  EXPECT_EQ(clients[0]->StatusLine(), "HTTP/1.1 408 Request Timeout");
  EXPECT_EQ(clients[150]->StatusLine(), "closed");  // idle for longer than a kept-alive connection may be
  EXPECT_EQ(clients[400]->StatusLine(), "HTTP/1.1 200 OK");
  httplib::Client scrape(agent_.Url());
  const auto metrics = scrape.Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_EQ(metrics->status, 200);
  // The slow ones; an unread answer that stalls for as long counts too.
  std::smatch deadline;
  ASSERT_TRUE(std::regex_search(metrics->body, deadline, std::regex(R"(reason="deadline"\} (\d+))")));
  EXPECT_GE(std::stoi(deadline[1]), 100);
}

// A request larger than its bounds is refused once it passes them; the
// agent reads on only to let the client see the refusal, and keeps none
// of it.
TEST_F(Http, HugeRequestsAreRefusedAtTheirBoundsAndCostNoMemory) {
  agent_ = StartAgent();
  GetJson(agent_.Url(), "/metrics");
  const long before = RssKib(agent_.process->Id());
  const std::string megabyte(1 << 20, 'a');
  struct Attack {
    std::string start;
    std::string piece;
    const char* answer;
  };
  const Attack attacks[] = {
      {"GET /", megabyte, "HTTP/1.1 414 URI Too Long"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX-a: ", megabyte, "HTTP/1.1 431 Request Header Fields Too Large"},
      {"POST /actions HTTP/1.1\r\nHost: 127.0.0.1\r\nTransfer-Encoding: chunked\r\n\r\n",
       "100000\r\n" + megabyte + "\r\n", "HTTP/1.1 413 Payload Too Large"},
  };
  for (const Attack& attack : attacks) {
    RawClient client(agent_.port);
    ASSERT_TRUE(client.Send(attack.start));
    for (int i = 0; i < 20 && client.Send(attack.piece); ++i) {
    }
    EXPECT_EQ(client.StatusLine(), attack.answer);
  }
  EXPECT_LT(RssKib(agent_.process->Id()) - before, 4096);
  EXPECT_EQ(GetJson(agent_.Url(), "/tables").size(), 33u);
}

}  // namespace
#endif
