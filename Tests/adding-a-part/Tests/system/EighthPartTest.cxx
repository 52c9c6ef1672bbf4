// A part of which nobody knew when the daemon was written: its image comes with a package from a stick.
#include "StationTest.h"

using namespace station;

class EighthPart : public StationTest {
 protected:
  static Package Build() {
    return PackageBuilder("S4.1.0.1").App("V2.0.0.01", 4096).Dsp("V2.0.0.01").Build();
  }
};

TEST_F(EighthPart, IsUpgradedFromAStick) {
  Station station;
  ASSERT_TRUE(station.Start());
  const Package package = Build();
  ExpectUpgrade(station, package);
  ExpectNoDifferences(station.chips().DifferencesFrom(package));
  EXPECT_EQ(Station::Versions(Partition::B)["subModulesVersion"]["dspVersion"], "V2.0.0.01");
}

TEST_F(EighthPart, FailsWithItsReasonWhenTheChipRefuses) {
  Station station;
  ASSERT_TRUE(station.Start());
  station.chips().dsp().conduct().Add({FaultKind::Refuse, Phase::DspBlock, 0, 2});
  station.InsertStick(Build());
  ExpectReboot(station);
  EXPECT_EQ(Statuses(station.panel()), (std::vector<int>{kStarted, kUpgrading, kFailed}));
  const std::string log = Daemon::Log();
  EXPECT_NE(log.find("upgrade error type:11"), std::string::npos) << log;
  EXPECT_NE(log.find("part.dsp.answer: block 3 of 40 is declined"), std::string::npos) << log;
  EXPECT_EQ(Station::MarkedForBoot(), Partition::A);
  EXPECT_EQ(Station::Versions(Partition::B)["subModulesVersion"]["dspVersion"], "V1.0.0.01");
}
