// What portable parts are told and what they answer, byte by byte, in both protocols.
#include "UpgradePp/PpMessages.h"

#include <gtest/gtest.h>

#include <string>

#include "../Serial/SerialTestKit.h"
#include "UpgradePp/OldProtocol/OldProtocol.h"

namespace {

using namespace UpgPp;

constexpr unsigned kFamily7204 = 0x7204;
constexpr unsigned kFamily7308 = 0x7308;

// A text behind its length byte.
Bytes Counted(const std::string& text) {
  return Bytes({static_cast<uint8_t>(text.size())}) + Bytes(text.begin(), text.end());
}

TEST(PpVersionTest, KnowsOneForm) {
  for (const char* text : {"S1.0.2.5", "1.0.2.05", "S1.0.2.05"}) {
    EXPECT_EQ(PpVersion::Normal(text), "S1.0.2.05") << text;
    EXPECT_EQ(PpVersion::Parse(text), VersionNumbers({1, 0, 2, 5})) << text;
  }
  EXPECT_EQ(PpVersion::Normal("255.255.255.255"), "S255.255.255.255");
  for (const char* text :
       {"", "S", "V0.0.0.00", "SS1.0.2.5", "1.0.2", "1.0.2.5.6", "1.0.2.256", "1.0.2.5 "}) {
    EXPECT_EQ(PpVersion::Normal(text), text);
    EXPECT_FALSE(PpVersion::Parse(text)) << text;
  }
}

TEST(PpMessagesTest, VersionReplyNamesFamilyVariantAndVersions) {
  const Bytes numbers = {1, 0, 2, 5};
  const struct {
    std::string hardware;
    unsigned family;
    PpType type;
  } rows[] = {
      {"H100", kFamily7204, EM_PP_7204}, {"H000_A", kFamily7204, EM_PP_7204_EVT},
      {"", kFamily7204, EM_PP_7204},     {"H000", kFamily7308, EM_PP_7308},
      {"H100", 0x9031, EM_PP_7308},
  };
  for (const auto& row : rows) {
    const auto info = PpMessages::ReadVersion(row.family, numbers + Counted(row.hardware) + Counted("2.7.1"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->m_emPpType, row.type) << row.hardware;
    EXPECT_EQ(info->strVerison, "S1.0.2.05");
    EXPECT_EQ(info->strHwVerison, row.hardware);
    EXPECT_EQ(info->strRtxVerison, "2.7.1");
  }
  const auto shortest = PpMessages::ReadVersion(kFamily7308, {9, 8, 7, 66, 0, 0});
  ASSERT_TRUE(shortest);
  EXPECT_EQ(shortest->strVerison, "S9.8.7.66");
  EXPECT_EQ(shortest->strRtxVerison, "");
}

TEST(PpMessagesTest, LegacyReplyTellsOfTheRadioAndFourTexts) {
  const auto read = [](uint8_t radio, const std::string& module, const std::string& software) {
    return PpMessages::ReadLegacyVersion(Bytes({radio}) + Counted(module) + Counted(software) +
                                         Counted("H1") + Counted("R2"));
  };
  const auto legacy = read(1, "7302", "S1.0.2.5");
  ASSERT_TRUE(legacy);
  EXPECT_TRUE(legacy->radioActive);
  EXPECT_EQ(legacy->info.m_emPpType, EM_PP_7302_03);
  EXPECT_EQ(legacy->info.strProductModuleNum, "7302");
  EXPECT_EQ(legacy->info.strVerison, "S1.0.2.05");
  EXPECT_EQ(legacy->info.strHwVerison, "H1");
  EXPECT_EQ(legacy->info.strRtxVerison, "R2");
  const auto off = read(0, "7308", "beta");
  ASSERT_TRUE(off);
  EXPECT_FALSE(off->radioActive);
  EXPECT_EQ(off->info.m_emPpType, EM_PP_7308);
  EXPECT_EQ(off->info.strVerison, "beta") << "as the part says it";
}

TEST(PpMessagesTest, TornRepliesAreNone) {
  const Bytes newer = Bytes({1, 0, 2, 5}) + Counted("H100") + Counted("2.7.1");
  const Bytes legacy = Bytes({1}) + Counted("7302") + Counted("S1.0.2.5") + Counted("H1") + Counted("R2");
  for (size_t size = 0; size < newer.size(); ++size) {
    EXPECT_FALSE(PpMessages::ReadVersion(kFamily7204, Bytes(newer.data(), newer.data() + size))) << size;
  }
  for (size_t size = 0; size < legacy.size(); ++size) {
    EXPECT_FALSE(PpMessages::ReadLegacyVersion(Bytes(legacy.data(), legacy.data() + size))) << size;
  }
}

// Texts of parts go into JSON, which is UTF-8, and into the log, where a line end would forge a line.
TEST(PpMessagesTest, PaddingIsCutAndATextThatIsNoneIsEmpty) {
  const struct {
    std::string field;
    std::string text;
  } rows[] = {
      {std::string("H100\0\0", 6), "H100"},
      {std::string("H100\0\xFF\xFF", 7), "H100"},
      {std::string(4, '\0'), ""},
      {"\xFF\xFF\xFF\xFF", ""},
      {"H1\nFailed!", ""},
      {"H1\x7F", ""},
      {"H\xC3\xA4", "H\xC3\xA4"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.field);
    const auto newer =
        PpMessages::ReadVersion(kFamily7308, Bytes({1, 0, 2, 5}) + Counted(row.field) + Counted("2.7.1"));
    ASSERT_TRUE(newer);
    EXPECT_EQ(newer->strHwVerison, row.text);
    EXPECT_EQ(newer->strRtxVerison, "2.7.1");
    const auto legacy =
        PpMessages::ReadLegacyVersion(Bytes({1}) + Counted(std::string("7308\0", 5)) + Counted("S1.0.2.5") +
                                      Counted(row.field) + Counted("R2"));
    ASSERT_TRUE(legacy);
    EXPECT_EQ(legacy->info.m_emPpType, EM_PP_7308);
    EXPECT_EQ(legacy->info.strHwVerison, row.text);
    EXPECT_EQ(legacy->info.strRtxVerison, "R2");
  }
}

TEST(PpMessagesTest, FirmwareInformationHoldsWhatItsFieldsCan) {
  const Bytes version = {1, 0, 2, 5};
  EXPECT_EQ(PpMessages::FirmwareInfo(PpMessages::EM_CFG_PP_7308, 0x01020304, version, "a.b"),
            Bytes({1, 4, 3, 2, 1, 1, 0, 2, 5, 3, 'a', '.', 'b'}));
  EXPECT_EQ(
      PpMessages::FirmwareInfo(PpMessages::EM_CFG_PP_7204, 0xFFFFFFFF, version, std::string(255, 'x')).size(),
      265U);
  EXPECT_TRUE(PpMessages::FirmwareInfo(PpMessages::EM_CFG_PP_7204, 0x100000000, version, "a").empty());
  EXPECT_TRUE(
      PpMessages::FirmwareInfo(PpMessages::EM_CFG_PP_7204, 1, version, std::string(256, 'x')).empty());
  EXPECT_TRUE(PpMessages::FirmwareInfo(PpMessages::EM_CFG_PP_7204, 1, {1, 0, 2}, "a").empty());
}

TEST(PpMessagesTest, DataAndResultAreFramedAsThePartTakesThem) {
  const Bytes data = {7, 8, 9};
  EXPECT_EQ(PpMessages::DataPack(255, data.data(), 2), Bytes({255, 7, 8}));
  EXPECT_EQ(PpMessages::RtxResultFrame(true),
            Bytes({0xAA, 0xDD, 8, 0, 0, 0x81, 0x55, 1, 1, 1, 0xA2, 0, 0x08}));
  EXPECT_EQ(PpMessages::RtxResultFrame(false),
            Bytes({0xAA, 0xDD, 8, 0, 0, 0x81, 0x55, 1, 1, 1, 0xA2, 1, 0x09}));
}

TEST(OldProtocolTest, AnswersBecomeFramesOfTheOneCallback) {
  Inbox<Bytes> frames;
  OldProtocol protocol([&](const OldProtocol::Frame_t& frame) {
    frames.Put(Bytes({frame.m_iCmd}) + frame.m_vecPayload);
    return frame.m_iCmd == EM_OLD_CMD_GET_PP_VERSION_INFO;
  });
  const PtyPeer part;
  const UART_MNG_INFO_S info = part.Info();
  ASSERT_TRUE(protocol.CreateSerial(&info));
  EXPECT_EQ(protocol.SendFrame(EM_OLD_CMD_GET_PP_VERSION_INFO, nullptr, 0), 6);
  const Bytes request = part.Receive(6);
  part.Send(request);  // an echo is no answer
  part.Send({0xAA, 0xDD, 0xB1, 2, 0, 5, 6, 0xC7});
  EXPECT_EQ(frames.Wait(1), std::vector<Bytes>({{0xB1, 5, 6}}));

  const uint8_t payload = 1;
  EXPECT_EQ(protocol.UartRecvCallback(0xB1, &payload, 1), 0);
  EXPECT_EQ(protocol.UartRecvCallback(0xB2, &payload, 1), -1) << "refused by the callback";
  EXPECT_EQ(protocol.UartRecvCallback(0xB1, nullptr, 1), -1);
  EXPECT_EQ(OldProtocol(nullptr).UartRecvCallback(0xB1, &payload, 1), -1);
}

}  // namespace
