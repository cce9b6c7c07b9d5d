// What kzqctl prints from the agent's answers: tables side by side or one
// field a line, readable times, and the summaries made from tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "kzq/ctl_format.h"
#include "kzq/ctl_table.h"
#include "kzq/ctl_views.h"

namespace {

using Json = nlohmann::ordered_json;
using testing::HasSubstr;

TEST(RenderTable, SideBySideWhileARowFitsElseOneFieldALineWithValuesWhole) {
  const std::string long_value(40, 'x');
  const kzq::TextTable table{{"NAME", "NOTE"}, {{"a", long_value}, {"bé", ""}}};
  // 4 + 2 + 32: the note is cut to the widest a column gets.
  EXPECT_EQ(kzq::RenderTable(table, 38), "NAME  NOTE\n----  " + std::string(32, '-') + "\na     " +
                                             std::string(31, 'x') + "~\nbé\n");
  EXPECT_EQ(kzq::RenderTable(table, 37), "NAME : a\nNOTE : " + long_value + "\n\nNAME : bé\nNOTE :\n");
}

TEST(ReadableStamp, ShowsAStampAsDateAndTimeBlankWhenItHoldsNoTimeAndLeavesOtherTexts) {
  EXPECT_EQ(kzq::ReadableStamp("1261123182947000", false), "2026-11-23 18:29:47");
  EXPECT_EQ(kzq::ReadableStamp("0000000000000000", false), "");
  EXPECT_EQ(kzq::ReadableStamp("1261340000000000", false), "");
  EXPECT_EQ(kzq::ReadableStamp("16.0.4135.4", false), std::nullopt);
  EXPECT_EQ(kzq::ReadableStamp("", false), std::nullopt);
}

TEST(SampleTable, ShowsFilledColumnsOrTheChosenOnesWithTimesInStampColumnsOnly) {
  const Json sample = Json::parse(R"({"rows": [
      {"ORIGINNODE": "h", "ROWNO": 1, "DBNAME": "master", "OWNER": "", "DBSIZE": 7, "SAMPTIME": "1261123080000000",
       "CLNTPID": "1261123080000000", "LOGTIME": "nodata"},
      {"ORIGINNODE": "h", "ROWNO": 2, "DBNAME": "sales", "OWNER": null, "DBSIZE": null, "SAMPTIME": "0000000000000000",
       "CLNTPID": "", "LOGTIME": ""}]})");
  kzq::SampleView view{{}, {"SAMPTIME", "LOGTIME"}, false};
  std::string error;
  const auto all = kzq::SampleTable(sample, view, &error);
  ASSERT_TRUE(all);
  EXPECT_EQ(all->columns, (std::vector<std::string>{"DBNAME", "DBSIZE", "SAMPTIME", "CLNTPID", "LOGTIME"}));
  EXPECT_EQ(all->rows[0], (std::vector<std::string>{"master", "7", "2026-11-23 08:00:00", "1261123080000000", "nodata"}));
  EXPECT_EQ(all->rows[1], (std::vector<std::string>{"sales", "", "", "", ""}));

  view.columns = {"samptime", "Owner"};
  const auto chosen = kzq::SampleTable(sample, view, &error);
  ASSERT_TRUE(chosen);
  EXPECT_EQ(chosen->columns, (std::vector<std::string>{"SAMPTIME", "OWNER"}));
  view.columns = {"DBNAM"};
  EXPECT_FALSE(kzq::SampleTable(sample, view, &error));
  EXPECT_THAT(error, HasSubstr("no column 'DBNAM'"));
}

Json Session(int id, const char* blocker) {
  return {{"PROCESSID", id}, {"DBNAME", "SalesDB"}, {"BLOCKID", blocker}, {"UDBNAME", "SalesDB"}};
}

TEST(BlockingTree, EachWaiterUnderItsBlockerAndCirclesShownOnce) {
  const Json processes = {{"rows",
                           {Session(12, "0"), Session(57, "52"), Session(52, "0"), Session(61, "57"), Session(63, "52"),
                            Session(80, "81"), Session(81, "80"), Session(90, "99"), Session(91, "90")}}};
  std::vector<std::string> sessions;
  for (const auto& row : kzq::BlockingTree(processes).rows) sessions.push_back(row[0] + "<" + row[1]);
  // 90 waits for a session not in the sample: it heads its own chain.
  EXPECT_EQ(sessions, (std::vector<std::string>{"52<", "  57<52", "    61<57", "  63<52", "90<99", "  91<90", "80<81",
                                                "  81<80"}));
  EXPECT_TRUE(kzq::BlockingTree({{"rows", {Session(12, "0")}}}).rows.empty());
}

TEST(JobTable, NamesStatesOutcomesAndDurations) {
  const Json jobs = {{"rows",
                      {{{"JOBNAME", "etl"}, {"JOBENABLED", 1}, {"CURSTATUS", 4}, {"LSTRUNTIME", "1261123030000000"},
                        {"LSTRUNSTAT", 0}, {"JOBDUR", 3671}, {"JOBERRCODE", "8152"}, {"NXTRUNTIME", "1261124030000000"}},
                       {{"JOBNAME", "old"}, {"JOBENABLED", 0}, {"CURSTATUS", 4}, {"LSTRUNSTAT", nullptr},
                        {"JOBDUR", 0}, {"JOBERRCODE", "0"}}}}};
  const kzq::TextTable table = kzq::JobTable(jobs, false);
  EXPECT_EQ(table.rows[0], (std::vector<std::string>{"etl", "idle", "2026-11-23 03:00:00", "failed", "1:01:11", "8152",
                                                     "2026-11-24 03:00:00"}));
  EXPECT_EQ(table.rows[1], (std::vector<std::string>{"old", "disabled", "", "", "0:00:00", "", ""}));
}

}  // namespace
