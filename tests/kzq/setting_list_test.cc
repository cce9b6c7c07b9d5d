// The settings a configuration file may name are the ones the README
// documents and the example file offers: a setting missing from either is
// one a DBA cannot find, and one missing from the list is refused in a file.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "kzq/setting_list.h"

namespace {

std::string Read(const std::string& path) {
  std::ifstream in(std::string(KZQ_SOURCE_DIR) + "/" + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every `NAME` in the first column of the settings tables of the README's
// sections "Configuration" and "Reading SQL Server".
std::set<std::string> ReadmeSettings() {
  const std::string readme = Read("README.md");
  std::string tables;
  for (const auto& [from, to] : {std::pair{"\n## Configuration\n", "\n## One instance"},
                                 std::pair{"\n## Reading SQL Server\n", "\n## Registry on Linux"}}) {
    const size_t begin = readme.find(from);
    tables += readme.substr(begin, readme.find(to, begin) - begin);
  }
  std::set<std::string> names;
  std::istringstream lines(tables);
  const std::regex name("`([A-Z][A-Z0-9_]+)`");
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("| `", 0) != 0) continue;
    const std::string cell = line.substr(0, line.find(" |", 1));
    for (auto it = std::sregex_iterator(cell.begin(), cell.end(), name); it != std::sregex_iterator(); ++it)
      names.insert((*it)[1]);
  }
  return names;
}

TEST(SettingList, MatchesTheReadmeAndTheExampleFile) {
  const std::set<std::string> documented = ReadmeSettings();
  const std::string example = Read("packaging/config/example.conf");
  std::set<std::string> listed;
  for (const kzq::SettingSpec& spec : kzq::SettingList()) {
    listed.insert(spec.name);
    EXPECT_TRUE(documented.count(spec.name)) << spec.name << " is not in the README's settings tables";
    EXPECT_NE(example.find(std::string("\n#") + spec.name + "="), std::string::npos) << spec.name << " is not in example.conf";
  }
  for (const std::string& name : documented) EXPECT_TRUE(listed.count(name)) << name << " is documented but not known";
}

TEST(SettingList, ChecksNumbersChoicesAndAddresses) {
  const kzq::SettingSpec& interval = *kzq::FindSetting("KZQ_SAMPLE_INTERVAL");
  for (const char* good : {"", "1", "86400"}) EXPECT_EQ(kzq::SettingProblem(interval, good), "") << good;
  for (const char* bad : {"0", "86401", "12abc", " 5", "-", "99999999999999999999"})
    EXPECT_NE(kzq::SettingProblem(interval, bad), "") << bad;
  const kzq::SettingSpec& encrypt = *kzq::FindSetting("COLL_SQL_ENCRYPT");
  EXPECT_EQ(kzq::SettingProblem(encrypt, "require"), "");
  EXPECT_EQ(kzq::SettingProblem(encrypt, "requir"), "is not one of off,request,require");
  const kzq::SettingSpec& listen = *kzq::FindSetting("KZQ_HTTP_LISTEN");
  for (const char* good : {"off", "127.0.0.1:0", "[::1]:9100"}) EXPECT_EQ(kzq::SettingProblem(listen, good), "") << good;
  EXPECT_NE(kzq::SettingProblem(listen, "localhost"), "");
  EXPECT_EQ(kzq::ShownValue(*kzq::FindSetting("COLL_PASSWORD"), "secret"), "***");
}

}  // namespace
