// The demo's sample errorlog writer read back by the agent's own errorlog
// code: every error and symptom dump the writer says it wrote is found, in
// order, with its number, severity and message.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "kzq/catalogue.h"
#include "kzq/errorlog_parser.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "tests/support/binaries.h"
#include "tests/support/started_programs.h"
#include "tests/support/table_rows.h"
#include "tests/support/temp_dir.h"

namespace {

#ifdef _WIN32
constexpr const char* kLogName = "ERRORLOG";
#else
constexpr const char* kLogName = "errorlog";
#endif

// "<number>/<severity> <message>" of one error; a dump's number is 0.
using Entries = std::vector<std::string>;

std::string Entry(long error, int severity, const std::string& message) {
  return std::to_string(error) + "/" + std::to_string(severity) + " " + message;
}

// The writer's report lines: "<time> error <n> severity <s> state <t>
// <source>: <message>" and "<time> symptom dump severity <s> <source>:
// <message>".
Entries Reported(const std::string& output) {
  Entries entries;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    long error = 0;
    int severity = 0;
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) continue;
    if (sscanf(line.c_str(), "%*s error %ld severity %d", &error, &severity) == 2 ||
        sscanf(line.c_str(), "%*s symptom dump severity %d", &severity) == 1)
      entries.push_back(Entry(error, severity, line.substr(colon + 2)));
  }
  return entries;
}

const int kEventStart = kzq::kzqerror_spec.offsets[kzq::kzqerror_spec.IndexOf("MSGTIME")];
std::string EventText(const std::string& event, const char* name) {
  return kzq_test::FieldText(kzq::kzqerror_spec, event, name, kEventStart);
}
int32_t EventInt(const std::string& event, const char* name) {
  return kzq_test::FieldInt(kzq::kzqerror_spec, event, name, kEventStart);
}

class DemoErrorlog : public testing::Test {
 protected:
  // Runs the writer to its end; its exit code, its output in Output().
  int RunWriter(const std::vector<std::string>& args) {
    std::vector<std::string> argv{kzq_test::BuiltProgram("demo", "kzqdemolog")};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string said;
    return kzq_test::RunToEnd(argv, output_.File("report.txt"), &said);
  }
  std::string Output() const { return kzq_test::ReadFile(output_.File("report.txt")); }
  // What the agent's parser finds from the context's offset on, at any severity.
  Entries ReadBack() {
    Entries entries;
    kzq::ParseNewLogText(
        context_,
        [&entries](const std::string& event) {
          entries.push_back(Entry(strtol(EventText(event, "ERRORID").c_str(), nullptr, 10), EventInt(event, "SEVERITY"),
                                  EventText(event, "UMSGTEXT")));
        },
        platform::NowUnixSeconds);
    return entries;
  }

  kzq_test::TempDir log_;
  kzq_test::TempDir output_;
  kzq::ErrorlogContext context_;
};

TEST_F(DemoErrorlog, TheAgentReadsBackEveryErrorTheWriterReports) {
  ASSERT_EQ(RunWriter({log_.Path(), "--count", "300"}), 0) << Output();
  const std::string log = kzq_test::ReadFile(log_.File(kLogName));
  ASSERT_GT(log.size(), 2u) << kLogName << " not written";
  EXPECT_EQ(log.substr(0, 2), "\xFF\xFE");
  const Entries first = Reported(Output());
  // One entry in six is an error: 300 entries without one would be a fault.
  ASSERT_GT(first.size(), 10u) << Output();
  context_.log_path = log_.File(kLogName);
  context_.min_severity = 0;
  EXPECT_EQ(ReadBack(), first);

  // A second run appends to the log it finds, header and all kept.
  ASSERT_EQ(RunWriter({log_.Path(), "--count", "60"}), 0) << Output();
  EXPECT_EQ(kzq_test::ReadFile(log_.File(kLogName)).substr(0, log.size()), log);
  EXPECT_EQ(ReadBack(), Reported(Output()));
}

TEST_F(DemoErrorlog, BadArgumentsAreRefusedAndWriteNothing) {
  EXPECT_EQ(RunWriter({log_.File("missing")}), 2);
  EXPECT_NE(Output().find("is not a directory"), std::string::npos) << Output();
  EXPECT_EQ(RunWriter({log_.Path(), "0"}), 2);
  EXPECT_NE(Output().find("the interval must be 1 to 3600 seconds, got '0'"), std::string::npos) << Output();
  EXPECT_EQ(RunWriter({log_.Path(), "--count"}), 2);
  EXPECT_TRUE(std::filesystem::is_empty(log_.Path()));
}

}  // namespace
