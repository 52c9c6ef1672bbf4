// The line to a portable part: who may open it, which answers count, and what ends a wait.
#include "UpgradePp/PpLink.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "../Serial/SerialTestKit.h"
#include "BSW/Serial/McuFrame.h"

using namespace UpgPp;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kShort(100);

class PpLinkTest : public ::testing::Test {
 protected:
  PpLinkTest() { flags.Set(EM_FLAG_PLUG_IN); }

  using Answer = PpLink::Answer;

  // What the part sends for a command.
  static Bytes Reply(uint16_t cmd, const Bytes& data) {
    McuFrame::ProtocolData_t answer;
    answer.m_iCmd = cmd;
    answer.m_emCmdType = McuFrame::EM_CMD_RESPONE;
    answer.m_vecDataField = data;
    return McuFrame::Pack({0x01, 0x73, 0x08, 0x31}, 0, answer);
  }

  // Waits until the part has what it sends read: reports are handled in the order of arrival.
  void Say(const Bytes& frames) {
    const int before = ready;
    part.Send(frames + Reply(EM_NEW_CMD_PP_REP_READY, {}));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (ready == before && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    ASSERT_EQ(ready, before + 1);
  }

  PtyPeer part;
  CFlags flags{kLongTermFlags};
  std::atomic<int> ready{0};
  PpLink link{flags, [this] { ++ready; }};
};

}  // namespace

TEST_F(PpLinkTest, DeviceThatWentIsNotOpenedAndStaysClosed) {
  ASSERT_TRUE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  EXPECT_TRUE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  link.CloseUartsOf("/dev/ttyUSB8");
  EXPECT_TRUE(flags.Has(EM_FLAG_NEW_UART_OPEN));
  flags.Clear(EM_FLAG_PLUG_IN);
  link.CloseUartsOf(part.Device());
  EXPECT_FALSE(flags.Has(EM_FLAG_NEW_UART_OPEN));
  EXPECT_FALSE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  EXPECT_FALSE(link.SendCmd(EM_NEW_CMD_REQ_PP_VERSION));

  flags.Set(EM_FLAG_PLUG_IN);
  flags.End();
  EXPECT_FALSE(link.OpenUart(EM_PROT_73_OLD, part.Device()));
}

TEST_F(PpLinkTest, RefusedEmptyAndEarlierAnswersCountLikeNone) {
  ASSERT_TRUE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  Say(Reply(EM_NEW_CMD_REQ_SEND_DATA_PACK, {0}));
  EXPECT_TRUE(flags.Has(EM_FLAG_SEND_PACK_ACK));
  EXPECT_EQ(link.Request(EM_NEW_CMD_REQ_SEND_DATA_PACK, EM_FLAG_SEND_PACK_ACK, kShort), Answer::TimedOut);
  Say(Reply(EM_NEW_CMD_REQ_SEND_DATA_PACK, {1}) + Reply(EM_NEW_CMD_REQ_SEND_DATA_PACK, {}));
  EXPECT_FALSE(flags.Has(EM_FLAG_SEND_PACK_ACK));
  // A no to the firmware is an answer.
  Say(Reply(EM_NEW_CMD_REQ_SEND_FW_INFO, {1}));
  EXPECT_TRUE(flags.Has(EM_FLAG_DO_NOT_UPG));
  EXPECT_FALSE(flags.Has(EM_FLAG_SEND_FW_INFO_ACK));
}

TEST_F(PpLinkTest, VersionReplyOfFiveBytesIsRejectedAndOneOfSixIsKept) {
  ASSERT_TRUE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  Say(Reply(EM_NEW_CMD_REQ_PP_VERSION, {1, 0, 2, 5, 0}));
  EXPECT_FALSE(flags.Has(EM_FLAG_GET_VER));
  Say(Reply(EM_NEW_CMD_REQ_PP_VERSION, {1, 0, 2, 5, 0, 0}));
  EXPECT_TRUE(flags.Has(EM_FLAG_GET_VER));
  EXPECT_EQ(link.Info().m_emPpType, UpgPp::EM_PP_7308);
  EXPECT_EQ(link.Info().strVerison, "S1.0.2.05");
  EXPECT_EQ(link.Info().strHwVerison + link.Info().strRtxVerison, "");
}

TEST_F(PpLinkTest, LegacyProtocolHasButTheVersionRequest) {
  ASSERT_TRUE(link.OpenUart(EM_PROT_73_OLD, part.Device()));
  link.SetProtocol(EM_PROT_73_OLD);
  EXPECT_FALSE(link.SendCmd(EM_NEW_CMD_REQ_START_UPG));
  EXPECT_EQ(link.RequestVersion(kShort), Answer::TimedOut);
  EXPECT_EQ(part.Receive(6), (Bytes{0xBB, 0xDD, 0xB1, 0x00, 0x00, 0xD7}));
}

TEST_F(PpLinkTest, StopEndsAWaitAtOnce) {
  ASSERT_TRUE(link.OpenUart(EM_PROT_72_NEW, part.Device()));
  std::thread stopper([this] {
    part.Receive(McuFrame::EM_MIN_UART_FRAME_LENGTH);
    flags.End();
  });
  const double seconds = SecondsOf([this] {
    EXPECT_EQ(link.Request(EM_NEW_CMD_REQ_UPG_RTX, EM_FLAG_REQ_UPG_RTX_ACK, 2 * kPatience), Answer::GivenUp);
  });
  stopper.join();
  EXPECT_LT(seconds, std::chrono::duration<double>(kPatience).count());
}

TEST(PpFlags, FlagsOfAnAttemptEndWithItAndOthersStay) {
  CFlags flags{kLongTermFlags};
  flags.Set(EM_FLAG_GET_VER | EM_FLAG_START_UPG_RTX | EM_FLAG_7204_RE_INSERT | EM_FLAG_NEW_UART_OPEN |
            EM_FLAG_PLUG_IN | EM_FLAG_LOAD_STORAGE | EM_FLAG_7308_VER_INFO_LOADED);
  flags.ClearAttempt(kPortFlags);
  EXPECT_EQ(flags.Flags(), static_cast<int>(EM_FLAG_NEW_UART_OPEN));
  EXPECT_EQ(flags.LongTermFlags(),
            static_cast<int>(EM_FLAG_PLUG_IN | EM_FLAG_LOAD_STORAGE | EM_FLAG_7308_VER_INFO_LOADED));
}
