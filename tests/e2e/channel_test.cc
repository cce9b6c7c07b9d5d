#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <signal.h>
#endif

#include "kvc/channel_entry.h"
#include "kvc/channel_dispatch.h"
#include "kvc/shared_memory_exchange.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "platform/process.h"
#include "platform/semaphore.h"
#include "platform/shared_memory.h"
#include "tests/e2e/channel_pattern.h"
#include "tests/e2e/channel_peer_process.h"
#include "tests/support/binaries.h"
#include "tests/support/eventually.h"
#include "tests/support/started_programs.h"
#include "tests/support/temp_dir.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;

// The agent side of the channel, opened under a prefix of this process;
// each test talks to a fresh collector process.
class Channel : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    first_ = "kzqt" + std::to_string(platform::CurrentProcessId());
    // The collector forms the same prefix from these through the front end.
    platform::SetEnv("COLL_VERSION", first_);
    platform::SetEnv("COLL_SERVERID", "1");
    platform::SetEnv("WAIT_TIMEOUT", "3");
    ASSERT_EQ(kvc::InitShareMemory(first_.c_str(), "1"), 0);
  }
  static void TearDownTestSuite() {
    kvc::DestroyShareMemory();
    for (const std::string& name : kvc::ChannelObjectNames(first_ + "_1")) {
      platform::RemoveSharedArea(name);
      platform::RemoveSemaphore(name);
    }
  }

  static std::unique_ptr<platform::ChildProcess> StartPeer(const std::vector<std::string>& args) {
    return kzq_test::StartChannelPeer(first_, "1", args);
  }
  static std::unique_ptr<platform::ChildProcess> StartReadyPeer(const std::vector<std::string>& args) {
    return kzq_test::StartChannelPeer(first_, "1", args, true);
  }

  // The real collector, replaying two databases and one job.
  std::unique_ptr<platform::ChildProcess> StartCollector() {
    kzq_test::WriteFile(replay_.File("kzqdbd.jsonl"), "{\"DBNAME\": \"master\"}\n{\"DBNAME\": \"tempdb\"}\n");
    kzq_test::WriteFile(replay_.File("kzqjobs.jsonl"), "{\"ACTJOBS\": 3}\n");
    auto collector = kzq_test::StartReplayCollector(replay_.Path());
    EXPECT_TRUE(kzq_test::Eventually([] { return kvc::SharedChannel().Exchange("KZQJOBS", "").numrow == 1; }));
    return collector;
  }

  // Sends a request and reads its answer.
  int RoundTrip(std::string* bytes, int32_t* rows, int32_t* length, std::string* unique_back,
                const std::vector<std::string>& attributes = {}, int timeout = 20) {
    std::string unique;
    EXPECT_EQ(kvc::RequestEndpoint()->SendRequest("KZQSRVRE", attributes, &unique, nullptr, timeout), 0);
    const int rc = kvc::DataEndpoint()->GetData(unique.c_str(), unique_back, rows, length, bytes, timeout);
    sent_unique_ = unique;
    return rc;
  }

  static std::string first_;
  std::string sent_unique_;
  kzq_test::TempDir replay_;
};

std::string Channel::first_;

// Answers arrive whole, in one chunk or many, and an empty one is the text
// NONE.
TEST_F(Channel, AnswersArriveWholeAcrossChunks) {
  const struct {
    int32_t rows, length;
  } cases[] = {{1, 1604}, {0, 1604}, {1, 99000}, {1, 99001}, {10000, 1604}};
  for (const auto& c : cases) {
    auto peer = StartPeer({"answer", std::to_string(c.rows), std::to_string(c.length)});
    std::string bytes, unique;
    int32_t rows = -1, length = 0;
    ASSERT_EQ(RoundTrip(&bytes, &rows, &length, &unique), 0) << c.rows << "x" << c.length;
    EXPECT_EQ(peer->Wait(), 0);
    EXPECT_EQ(rows, c.rows);
    EXPECT_EQ(unique, sent_unique_);
    const size_t total = static_cast<size_t>(c.rows) * static_cast<size_t>(c.length);
    EXPECT_TRUE(bytes == (total == 0 ? std::string("NONE") : kzq_test::PatternBytes(total)))
        << c.rows << "x" << c.length;
    if (c.rows > 0) {
      EXPECT_EQ(length, c.length);
    }
  }
}

TEST_F(Channel, AttributeNamesAreCutToFortySlotsOfNineteen) {
  auto peer = StartPeer({"echo"});
  std::vector<std::string> attributes;
  for (int i = 0; i < 41; ++i) attributes.push_back("ATTR" + std::to_string(i));
  attributes[3] = std::string(25, 'N');
  std::string bytes, unique;
  int32_t rows = 0, length = 0;
  ASSERT_EQ(RoundTrip(&bytes, &rows, &length, &unique, attributes), 0);
  EXPECT_EQ(peer->Wait(), 0);
  ASSERT_EQ(rows, 40);
  EXPECT_EQ(std::string(bytes.data() + 0 * 20), "ATTR0");
  EXPECT_EQ(std::string(bytes.data() + 3 * 20), std::string(19, 'N'));
  EXPECT_EQ(std::string(bytes.data() + 39 * 20), "ATTR39");
}

TEST_F(Channel, MismatchingUniqueNameIsReportedAndReturned) {
  kzq_test::LogCapture log;
  auto peer = StartPeer({"wrong-unique"});
  std::string bytes, unique;
  int32_t rows = 0, length = 0;
  ASSERT_EQ(RoundTrip(&bytes, &rows, &length, &unique), 0);
  EXPECT_EQ(peer->Wait(), 0);
  EXPECT_EQ(unique, "someone_else");
  EXPECT_EQ(bytes, kzq_test::PatternBytes(16));
  EXPECT_THAT(log.Text(), HasSubstr("NSH0014W"));
  EXPECT_THAT(log.Text(), HasSubstr("Get Data for someone_else, not for " + sent_unique_));
}

TEST_F(Channel, RequestReadTooLateIsDiscarded) {
  std::string unique;
  ASSERT_EQ(kvc::RequestEndpoint()->SendRequest("KZQSRVR", {}, &unique, nullptr, 20), 0);
  // The request was finished 46 seconds ago, one past its 45-second limit.
  unsigned char* view = static_cast<kvc::ShareCommObject*>(kvc::RequestEndpoint())->View();
  const int32_t long_ago = kvc::AreaNow() - 46;
  memcpy(view + kvc::area::kReqFinishWrite, &long_ago, sizeof long_ago);
  auto peer = StartPeer({"answer", "1", "10"});
  EXPECT_EQ(peer->Wait(), 3);
}

// The area outlives both processes: a time limit damaged once (a stray
// write, an older program) must not have every later request refused.
TEST_F(Channel, ADamagedTimeLimitIsWrittenAfreshWithTheNextRequest) {
  unsigned char* view = static_cast<kvc::ShareCommObject*>(kvc::RequestEndpoint())->View();
  const int32_t damaged = -1771428811;
  memcpy(view + kvc::area::kReqTimeout, &damaged, sizeof damaged);
  std::string unique;
  ASSERT_EQ(kvc::RequestEndpoint()->SendRequest("KZQSRVR", {}, &unique, nullptr, 20), 0);
  auto peer = StartPeer({"answer", "1", "10"});
  EXPECT_EQ(peer->Wait(), 0);
}

TEST_F(Channel, ARequestWithoutAStatementClearsTheOneBefore) {
  std::string unique;
  ASSERT_EQ(kvc::RequestEndpoint()->SendRequest("KZQSQL", {}, &unique, "SPID=7", 0), kvc::kCommOk);
  kvc::RequestEndpoint()->Reset(kvc::kRequestArea);
  ASSERT_EQ(kvc::RequestEndpoint()->SendRequest("KZQDBD", {}, &unique, nullptr, 0), kvc::kCommOk);
  const unsigned char* view = static_cast<kvc::ShareCommObject*>(kvc::RequestEndpoint())->View();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(view + kvc::area::kReqStatement)), "");
  kvc::RequestEndpoint()->Reset(kvc::kRequestArea);
}

TEST_F(Channel, CollectorDyingMidAnswerTimesOutThenTheNextRequestWorks) {
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  auto dying = StartPeer({"die", "5", "99000"});
  EXPECT_EQ(KVCCOMM("get", anchor, "KZQSRVRE"), nullptr);
  EXPECT_EQ(anchor->error_code, 20u);
  EXPECT_EQ(dying->Wait(), 9);

  // The next collector drops the half-written block when it opens the
  // channel, long before the block would go stale, and answers at once.
  auto fresh = StartPeer({"answer", "2", "100"});
  auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, "KZQSRVRE"));
  ASSERT_NE(pipes, nullptr) << anchor->error_text;
  EXPECT_EQ(anchor->error_code, 0u);
  EXPECT_EQ(fresh->Wait(), 0);
  EXPECT_EQ(pipes->word, "KZQSRVRE");
  EXPECT_EQ(pipes->next, nullptr);
  ASSERT_EQ(pipes->numrow, 2);
  EXPECT_EQ(pipes->lenrow, 100);
  EXPECT_EQ(std::string(pipes->rows, 200), kzq_test::PatternBytes(200));
  KVCCOMM("term", anchor);
}

TEST_F(Channel, GetWithoutACollectorReportsTheTimeOut) {
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  EXPECT_EQ(KVCCOMM("get", anchor, "  KZQSRVR, KZQDBS"), nullptr);
  EXPECT_EQ(anchor->error_code, 20u);
  EXPECT_STREQ(anchor->error_text, "Share memory time out");
  EXPECT_EQ(anchor->detail_code[0], kvc::kCommTimeout);
  EXPECT_EQ(anchor->detail_text[0], "GetData");  // the first word's answer never came
  EXPECT_EQ(anchor->detail_text[1], "KZQSRVR");
  // One entry per word, leading blanks and commas skipped.
  ASSERT_NE(anchor->pipes, nullptr);
  EXPECT_EQ(anchor->pipes->word, "KZQSRVR");
  ASSERT_NE(anchor->pipes->next, nullptr);
  EXPECT_EQ(anchor->pipes->next->word, "KZQDBS");
  KVCCOMM("term", anchor);
  // The unserved request was withdrawn: the next one goes straight through.
  std::string unique;
  EXPECT_EQ(kvc::RequestEndpoint()->SendRequest("KZQSRVR", {}, &unique, nullptr, 0), kvc::kCommOk);
  kvc::RequestEndpoint()->Reset(kvc::kRequestArea);
}

TEST_F(Channel, ACollectorThatNeverAnswersCostsEachRequestItsWaitOnly) {
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  auto mute = StartPeer({"mute"});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(KVCCOMM("get", anchor, "KZQSRVRE"), nullptr);
    EXPECT_EQ(anchor->error_code, 20u);
  }
  kzq_test::Stop(mute);
  auto fresh = StartPeer({"answer", "2", "100"});
  auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, "KZQSRVRE"));
  ASSERT_NE(pipes, nullptr) << anchor->error_text;
  EXPECT_EQ(pipes->numrow, 2);
  EXPECT_EQ(fresh->Wait(), 0);
  KVCCOMM("term", anchor);
}

TEST_F(Channel, PutOnAnAgentAnchorIsRefused) {
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  EXPECT_EQ(KVCCOMM("put", anchor), nullptr);
  EXPECT_EQ(anchor->error_code, 4u);
  EXPECT_STREQ(anchor->error_text, "Invalid request type f");  // texts are cut to 22 characters
  KVCCOMM("term", anchor);
}

// A collector that falls behind in the middle of an answer costs the
// exchange that gave up on it, and no more: the answer is marked finished,
// so the collector's next answer goes out at once.
TEST_F(Channel, AnAnswerGivenUpMidWayCostsOnlyItsOwnExchange) {
  kvc::CollectorChannel& channel = kvc::SharedChannel();
  const uint64_t abandoned = channel.Counts().abandoned;
  auto behind = StartReadyPeer({"behind", "3", "99000", "4"});
  EXPECT_FALSE(channel.Exchange("KZQSRVRE", "").Succeeded());
  const kvc::ChannelAnswer next = channel.Exchange("KZQSRVRE", "");
  EXPECT_TRUE(next.Succeeded());
  EXPECT_EQ(next.numrow, 1);
  EXPECT_EQ(next.rows, kzq_test::PatternBytes(99000));
  EXPECT_EQ(behind->Wait(), 0);
  EXPECT_EQ(channel.Counts().abandoned, abandoned + 1);
}

// The real collector answers the heartbeat, and a table it has no rows for
// or does not know with no rows rather than an error.
TEST_F(Channel, TheCollectorAnswersTheHeartbeatAndTablesWithoutRows) {
  auto collector = StartCollector();
  auto* anchor = static_cast<kvc::IpcAnchor*>(KVCCOMM("init"));
  auto* heart = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, "HART4"));
  ASSERT_NE(heart, nullptr) << anchor->error_text;
  ASSERT_EQ(heart->numrow, 1);
  EXPECT_EQ(std::string(heart->rows, static_cast<size_t>(heart->lenrow)), "1 1");
  for (const char* table : {"KZQSRVR", "KZQNOSUCH"}) {
    auto* pipes = static_cast<kvc::PipeList*>(KVCCOMM("get", anchor, table));
    ASSERT_NE(pipes, nullptr) << table << ": " << anchor->error_text;
    EXPECT_EQ(pipes->numrow, 0) << table;
  }
  KVCCOMM("term", anchor);
  kzq_test::Stop(collector);
}

// Callers wait for each other on the channel's lock and each gets the
// answer to its own request.
TEST_F(Channel, SimultaneousExchangesEachGetTheirOwnAnswer) {
  auto collector = StartCollector();
  kvc::ChannelAnswer answers[4];
  std::vector<std::thread> callers;
  for (int i = 0; i < 4; ++i)
    callers.emplace_back([&answers, i] { answers[i] = kvc::SharedChannel().Exchange(i % 2 ? "KZQDBD" : "KZQJOBS", ""); });
  for (std::thread& caller : callers) caller.join();
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(answers[i].Succeeded()) << i;
    EXPECT_EQ(answers[i].numrow, i % 2 ? 2 : 1) << i;
  }
  kzq_test::Stop(collector);
}

// A paused collector (a debugger, a frozen VM) that resumes while the agent
// waits answers that request: the slot was never left holding a request
// nobody waits for, and freeing it no longer drains the next one.
TEST_F(Channel, APausedCollectorAnswersTheFirstRequestAfterItResumes) {
#ifdef _WIN32
  GTEST_SKIP() << "pausing a process needs POSIX job control";
#else
  auto collector = StartCollector();
  const auto pid = static_cast<pid_t>(collector->Id());
  ASSERT_EQ(kill(pid, SIGSTOP), 0);
  kvc::CollectorChannel& channel = kvc::SharedChannel();
  EXPECT_FALSE(channel.Exchange("KZQDBD", "").Succeeded());
  kvc::ChannelAnswer resumed;
  // The request area seen through a mapping of the test's own, as the
  // collector sees it.
  int error = 0;
  auto area = platform::OpenSharedArea(first_ + "_1KVCReqShm", kvc::area::kRequestSize, {}, &error);
  ASSERT_NE(area, nullptr) << error;
  const auto request_in_area = [&area] {
    return std::string(reinterpret_cast<const char*>(area->Address() + kvc::area::kReqUnique));
  };
  const std::string before = request_in_area();
  std::thread waiting([&resumed] { resumed = kvc::SharedChannel().Exchange("KZQDBD", ""); });
  // Resumed once the request is in the area, or after a second if the slot
  // is not free to take it.
  kzq_test::Eventually([&] { return request_in_area() != before; }, 1000);
  ASSERT_EQ(kill(pid, SIGCONT), 0);
  waiting.join();
  EXPECT_TRUE(resumed.Succeeded());
  EXPECT_EQ(resumed.numrow, 2);
  EXPECT_TRUE(channel.Exchange("KZQDBD", "").Succeeded());
  kzq_test::Stop(collector);
#endif
}

}  // namespace
