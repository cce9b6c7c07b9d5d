#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kvc/debug_switches.h"
#include "kvc/file_checks.h"
#include "platform/environment.h"
#include "platform/file_system.h"
#include "tests/support/log_capture.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class FileCheckTest : public testing::Test {
 protected:
  void SetUp() override {
    kzq_test::WriteFile(dir_.File("full"), "x");
    kzq_test::WriteFile(dir_.File("empty"), "");
  }
  void TearDown() override { kvc::Debug() = kvc::DebugSwitches(); }
  kzq_test::TempDir dir_;
};

TEST_F(FileCheckTest, ClassifiesEveryKindOfPathAndTheVerboseFlagReportsOddOnes) {
  kzq_test::LogCapture log;
  EXPECT_EQ(kvc::CheckFile(dir_.File("full").c_str(), 0), kvc::kFileOk);
  EXPECT_EQ(kvc::CheckFile(dir_.File("empty").c_str(), 0), kvc::kFileEmpty);
  EXPECT_EQ(kvc::CheckFile(dir_.File("missing").c_str(), 0), kvc::kFileMissing);
  EXPECT_EQ(kvc::CheckFile(dir_.Path().c_str(), 0), kvc::kFileNotAFile);
  EXPECT_EQ(log.Text(), "");
  kvc::CheckFile(dir_.File("empty").c_str(), kvc::kCheckVerbose);
  kvc::CheckFile(dir_.Path().c_str(), kvc::kCheckVerbose);
  kvc::CheckFile(dir_.File("missing").c_str(), kvc::kCheckVerbose);
  EXPECT_THAT(log.Text(), HasSubstr("UST4010"));
  EXPECT_THAT(log.Text(), HasSubstr("UST4070"));
  EXPECT_THAT(log.Text(), Not(HasSubstr("UST4000")));
}

TEST_F(FileCheckTest, DebugReportsEmptyFilesAndFullDebugMissingOnes) {
  kzq_test::LogCapture log;
  kvc::ParseDebugWord("-dd", &kvc::Debug());
  kvc::CheckFile(dir_.File("empty").c_str(), 0);
  kvc::CheckFile(dir_.Path().c_str(), 0);  // needs verbosity 2: not at plain debug
  kvc::CheckFile(dir_.File("missing").c_str(), 0);
  EXPECT_THAT(log.Text(), HasSubstr("Null file: "));
  EXPECT_THAT(log.Text(), Not(HasSubstr("UST4070")));
  EXPECT_THAT(log.Text(), Not(HasSubstr("does not exist")));
  kvc::ParseDebugWord("dddddddddddd", &kvc::Debug());
  ASSERT_TRUE(kvc::Debug().full_debug);
  kvc::CheckFile(dir_.File("missing").c_str(), 0);
  EXPECT_THAT(log.Text(), HasSubstr("UST4000I"));
}

// A plain word such as "ddddd" is checked where the agent reads COLL_DEBUG.
TEST(DebugWord, FirstCharacterOnlySelectsTheDebugFlag) {
  kvc::DebugSwitches e;
  kvc::ParseDebugWord("-xEaf", &e);
  EXPECT_FALSE(e.debug);
  EXPECT_EQ(e.levels[0], 2);
  EXPECT_EQ(e.levels[1], 0);
  EXPECT_EQ(e.levels[2], 3);
}

class ExecutableSearchTest : public testing::Test {
 protected:
  void SetUp() override {
    sep_ = platform::PathListSeparator();
    platform::CreateDirectories(dir_.File("one"));
    platform::CreateDirectories(dir_.File("two"));
    list_ = dir_.File("one") + sep_ + dir_.File("two");
  }
  void TearDown() override {
    platform::SetEnv("PATHEXT", "");
    kvc::FindExecutable(nullptr, nullptr, nullptr, nullptr);
  }
  void UseExtensions(const char* list) {
    platform::SetEnv("PATHEXT", list);
    kvc::FindExecutable(nullptr, nullptr, nullptr, nullptr);  // forget the cached list
  }
  std::string In(const char* sub, const char* name) {
    return dir_.File(sub) + platform::PathSeparator() + name;
  }
  kzq_test::TempDir dir_;
  char sep_ = ';';
  std::string list_;
};

TEST_F(ExecutableSearchTest, ExtensionsInOrderWithinEachDirectoryInTurn) {
  UseExtensions(".EXE;.CMD");
  kzq_test::WriteFile(In("one", "tool.CMD"), "x");
  kzq_test::WriteFile(In("one", "tool.EXE"), "");  // empty files are not commands
  kzq_test::WriteFile(In("two", "tool.EXE"), "x");
  std::string found;
  int position = 0;
  ASSERT_EQ(kvc::FindExecutable("tool", &found, &position, list_.c_str()), kvc::kSearchFound);
  EXPECT_EQ(found, In("one", "tool.CMD"));
  ASSERT_EQ(kvc::FindExecutable("tool", &found, &position, list_.c_str()), kvc::kSearchFound);
  EXPECT_EQ(found, In("two", "tool.EXE"));
  // A position past the end of the list starts again from the beginning.
  ASSERT_EQ(kvc::FindExecutable("tool", &found, &position, list_.c_str()), kvc::kSearchFound);
  EXPECT_EQ(found, In("one", "tool.CMD"));
  EXPECT_EQ(kvc::FindExecutable("tool", &found, nullptr, dir_.File("two").c_str()), kvc::kSearchFound);
  EXPECT_EQ(kvc::FindExecutable("toolx", &found, nullptr, list_.c_str()), kvc::kSearchNotFound);
}

TEST_F(ExecutableSearchTest, NameWithADotIsTriedOnlyAsItStandsAndNoNameIsImpossible) {
  UseExtensions(".CMD");
  kzq_test::WriteFile(In("two", "run.sh"), "x");
  kzq_test::WriteFile(In("two", "run.sh.CMD"), "x");
  std::string found;
  ASSERT_EQ(kvc::FindExecutable("run.sh", &found, nullptr, list_.c_str()), kvc::kSearchFound);
  EXPECT_EQ(found, In("two", "run.sh"));
  EXPECT_EQ(kvc::FindExecutable("", &found, nullptr, list_.c_str()), kvc::kSearchImpossible);
  EXPECT_EQ(kvc::FindExecutable(nullptr, nullptr, nullptr, nullptr), kvc::kSearchImpossible);
}

TEST_F(ExecutableSearchTest, CurrentDirectoryComesBeforePath) {
  UseExtensions(".CMD");
  kzq_test::WriteFile("kzq_search_probe.CMD", "x");
  kzq_test::WriteFile(In("one", "kzq_search_probe.CMD"), "x");
  const std::string saved = platform::GetEnv("PATH").value_or("");
  platform::SetEnv("PATH", dir_.File("one"));
  std::string found;
  const int rc = kvc::FindExecutable("kzq_search_probe", &found, nullptr, nullptr);
  platform::SetEnv("PATH", "");
  EXPECT_EQ(kvc::FindExecutable("kzq_search_probe", &found, nullptr, nullptr), kvc::kSearchImpossible);
  platform::SetEnv("PATH", saved);
  std::remove("kzq_search_probe.CMD");
  EXPECT_EQ(rc, kvc::kSearchFound);
  EXPECT_EQ(found, std::string(".") + platform::PathSeparator() + "kzq_search_probe.CMD");
}

}  // namespace
