#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "framework/action_log.h"
#include "framework/agent.h"
#include "framework/bsv1.h"
#include "framework/serve/event_stream.h"
#include "framework/table_manager.h"
#include "platform/process.h"

namespace {

// A minimal table with a two-byte row, enough to exercise the manager.
class TinyTable : public framework::tavra {
 public:
  using tavra::tavra;
  int Dump() override { return 0; }
  int TakeSample() override { return 0; }
  int NumAttributes() const override { return 0; }
  int GetAttributeDescriptor(int, framework::AttributeDescriptor*) const override { return 0; }
  int TestAttribute(const void*, const char*, int, const char*) const override { return 0; }
  int AddRows(const void*, int32_t) override { return 0; }
};

class CountingManager : public framework::TableManager {
 public:
  explicit CountingManager(const char* key) : TableManager("KZQ", key) {}
  framework::tavra* CreateObject(const framework::RequestDetail* d, const framework::ContextInfo* c) override {
    return new TinyTable(d, c, this);
  }
  void EventRequestStarted(framework::tavra*) override { ++listeners; }
  void EventRequestEnded(framework::tavra*) override { --listeners; }
  int listeners = 0;
};

// A command reaching the real handler, and the entries it logs in order,
// are the end-to-end action tests' (ActionHandler).
TEST(TableManagerLifecycle, ACommandWithoutAHandlerIsRefused) {
  CountingManager manager("KZQTINY2");
  framework::tavra* object = manager.OpenRequest(nullptr, nullptr);
  framework::TavraAutomationCapsule capsule;
  capsule.command = "echo hi";
  EXPECT_NE(object->ExecuteCommand(&capsule), 0);
  manager.CloseRequest(object);
}

TEST(AgentIdentity, VersionBufferNeedsNineBytesAndTheProductCode) {
  char buffer[9];
  memset(buffer, 0, sizeof buffer);
  EXPECT_EQ(AVR_SetVersionUsingProduct("ZQ", buffer, 8), 1);
  EXPECT_EQ(AVR_SetVersionUsingProduct("XX", buffer, 9), 2);
  EXPECT_EQ(AVR_SetVersionUsingProduct("ZQ", buffer, 9), 0);
  EXPECT_STREQ(buffer, "01.00.00");
}

TEST(AgentIdentity, LocalHostIsCutToTheLimit) {
  const std::string host = platform::LocalHostName();
  ASSERT_FALSE(host.empty());
  char buffer[64];
  EXPECT_EQ(DetermineLocalHost(buffer, sizeof buffer), static_cast<int>(std::min<size_t>(host.size(), 63)));
  EXPECT_EQ(std::string(buffer), host.substr(0, 63));
  char tiny[3];
  EXPECT_EQ(DetermineLocalHost(tiny, 3), static_cast<int>(std::min<size_t>(host.size(), 2)));
  EXPECT_EQ(strlen(tiny), std::min<size_t>(host.size(), 2));
}

TEST(ActionLog, ForgetsTheOldest) {
  for (size_t i = 0; i < framework::kActionLogCapacity + 5; ++i) TAVRA_insert_log("X", "fill", "");
  const auto entries = framework::ActionLogSince(0);
  EXPECT_EQ(entries.size(), framework::kActionLogCapacity);
  EXPECT_EQ(entries.back().sequence, framework::ActionLogLast());
}

TEST(BaseServices, EnvironmentPairsUpperCaseAndALockThatNestsForItsOwnerOnly) {
  EXPECT_EQ(BSV1_PutEnv("KZQ_BSV_TEST=one=two"), 0);
  EXPECT_STREQ(BSV1_GetEnv("KZQ_BSV_TEST"), "one=two");
  EXPECT_EQ(BSV1_PutEnv("=nameless"), 1);
  EXPECT_EQ(BSV1_PutEnv("no equals"), 1);
  char text[] = "limit=5 Count";
  EXPECT_STREQ(BSV1_ToUpper(text), "LIMIT=5 COUNT");
  BSV1_Lock lock;
  ASSERT_EQ(BSV1_GetLock(&lock), 0);
  ASSERT_EQ(BSV1_GetLock(&lock), 0);
  const auto other_gets_it = [&lock] {
    bool got = false;
    std::thread([&] {
      got = lock.mutex.try_lock();
      if (got) lock.mutex.unlock();
    }).join();
    return got;
  };
  EXPECT_FALSE(other_gets_it());
  BSV1_ReleaseLock(&lock);
  BSV1_ReleaseLock(&lock);
  EXPECT_TRUE(other_gets_it());
  EXPECT_EQ(BSV1_DestroyLock(&lock), 0);
}

// A pushed table whose one-byte rows are their own number (0-255).
class ByteTable : public TinyTable {
 public:
  ByteTable(const framework::RequestDetail* d, const framework::ContextInfo* c, framework::TableManager* m)
      : TinyTable(d, c, m) {
    SetRowSize(1);
  }
  int AddRows(const void* rows, int32_t count) override {
    for (int32_t i = 0; i < count; ++i) InsertRow(static_cast<const unsigned char*>(rows) + i);
    return 0;
  }
};

class ByteManager : public CountingManager {
 public:
  using CountingManager::CountingManager;
  framework::tavra* CreateObject(const framework::RequestDetail* d, const framework::ContextInfo* c) override {
    return new ByteTable(d, c, this);
  }
};

// A consumer that stops writing is waited for only until it stalls, and
// then not again until it has caught up; one that falls more than the
// backlog behind hears how many it lost before the events it still gets.
TEST(EventStreams, AConsumerThatFallsBehindHoldsUpNobodyAndHearsOfItsGap) {
  auto* manager = new ByteManager("KZQTINYE");  // registered for the rest of the process
  ASSERT_EQ(framework::TableManager::RegisterWithManager(manager), 0u);
  auto subscription = framework::EventSubscription::Open("KZQTINYE");
  ASSERT_NE(subscription, nullptr);
  ByteTable row(nullptr, nullptr, manager);
  const auto push = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const unsigned char byte = 7;
      row.ClearRows();
      row.AddRows(&byte, 1);
      subscription->Deliver(row);
    }
  };
  push(1);
  EXPECT_FALSE(framework::WaitUntilEventsWritten("KZQTINYE", std::chrono::milliseconds(50)));
  push(framework::kEventBacklog + 4);
  EXPECT_FALSE(framework::WaitUntilEventsWritten("KZQTINYE", std::chrono::hours(1)));  // behind: not waited for
  EXPECT_EQ(subscription->NextFrame(std::chrono::milliseconds(0)), "event: gap\ndata: {\"dropped\": 5}\n\n");
  subscription->Written();
  for (size_t i = 0; i < framework::kEventBacklog; ++i) {
    const auto frame = subscription->NextFrame(std::chrono::milliseconds(0));
    ASSERT_TRUE(frame.has_value() && frame->rfind("data: ", 0) == 0) << i;
    subscription->Written();
  }
  EXPECT_EQ(subscription->Dropped(), 5u);
  EXPECT_TRUE(framework::WaitUntilEventsWritten("KZQTINYE", std::chrono::hours(1)));  // caught up
}

// Last: the framework stays stopped for the rest of the process. The
// shutdown closes what is still open; the caller's own use stays valid and
// its close is not counted twice.
TEST(AgentShutdown, WakesTheWaiterAndClosesRegisteredTables) {
  auto* manager = new CountingManager("KZQTINY3");  // lives as long as the process
  ASSERT_EQ(framework::TableManager::RegisterWithManager(manager), 0u);
  framework::RequestDetail event;
  event.type = framework::kSampleEvent;
  framework::tavra* object = manager->OpenRequest(&event, nullptr);
  std::thread waiter([] { framework::WaitForShutdown(); });
  EXPECT_FALSE(framework::ShutdownRequested());
  EXPECT_EQ(AVR_Shutdown(1), 0);
  waiter.join();
  EXPECT_TRUE(framework::ShutdownRequested());
  EXPECT_EQ(manager->listeners, 0);
  EXPECT_EQ(manager->OpenObjects(), 0u);
  EXPECT_EQ(AVR_Shutdown(1), 0);
  EXPECT_EQ(object->GetSampleType(), framework::kSampleEvent);
  manager->CloseRequest(object);
  EXPECT_EQ(manager->listeners, 0);
}

}  // namespace
