// The reasons and the page that explains them to people.
#include "UpgradePackage/Reasons.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "BSW/BasicFun/StringUtils.h"

namespace {

/// What a row of the page says of a reason.
struct Told {
  std::string panel;
  std::string reboot;
  size_t rows = 0;
};

std::string Trimmed(const std::string& cell) {
  const size_t first = cell.find_first_not_of(" `");
  return first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(" `") + 1 - first);
}

/// By word.
std::map<std::string, Told> ReadPage() {
  std::ifstream page(PROJECT_SOURCE_DIR "/Docs/refusals.md");
  std::map<std::string, Told> told;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("| `", 0) != 0) continue;
    const std::vector<std::string> cells = Split(line, '|');
    EXPECT_EQ(cells.size(), 7U) << line;
    EXPECT_NE(Trimmed(cells.at(4)), "") << line;
    EXPECT_NE(Trimmed(cells.at(5)), "") << line;
    Told& row = told[Trimmed(cells.at(1))];
    row = {Trimmed(cells.at(2)), Trimmed(cells.at(3)), row.rows + 1};
  }
  return told;
}

const std::map<Reasons::Panel, std::string> kPanelWords = {{Reasons::Panel::Nothing, "nothing"},
                                                           {Reasons::Panel::Failed, "failed"},
                                                           {Reasons::Panel::SameVersion, "same version"},
                                                           {Reasons::Panel::NoTask, "nothing to do"},
                                                           {Reasons::Panel::BatteryLow, "battery low"}};

}  // namespace

TEST(Reasons, StandOnThePageThatExplainsThem) {
  std::map<std::string, Told> told = ReadPage();
  for (const Reasons::Row& row : Reasons::kAll) {
    std::string word = row.word;
    if (word.empty()) continue;
    if (word.find('*') != std::string::npos) word.replace(word.find('*'), 1, "<part>");
    EXPECT_EQ(told[word].rows, 1U) << word;
    EXPECT_EQ(told[word].panel, kPanelWords.at(row.panel)) << word;
    EXPECT_EQ(told[word].reboot, row.reboots ? "yes" : "no") << word;
    told.erase(word);
  }
  for (const auto& [word, row] : told) ADD_FAILURE() << word << " is no reason";
}

TEST(Reasons, NameThePartThatFailed) {
  Failure failure = Fail(Reason::PartMount, "%s cannot be mounted", "/dev/mmcblk2p3");
  failure.part = UP_ROOTFS;
  EXPECT_TRUE(failure);
  EXPECT_EQ(failure.Text(), "part.rootfs.mount: /dev/mmcblk2p3 cannot be mounted");
  EXPECT_EQ((Failure{Reason::Busy, "", UP_NO_TYPE}.Text()), "busy");
  EXPECT_FALSE(Failure());
}
