// The packets of a module's flash loader, and the requests and confirmations in them.
#include "UpgradeFrame/RtxSubmodules/RtxPacket.h"

#include <gtest/gtest.h>

namespace {

using Rtx::Bytes;

// An erase confirmation; its CRC comes from another implementation.
const Bytes kErased = {0x46, 6, 0, 22, 0x00, 0x10, 0x00, 0x00, 1, 0xE3, 0x9C};

Bytes Changed(Bytes packet, size_t at, uint8_t value) {
  packet.at(at) = value;
  return packet;
}

TEST(RtxPacketTest, RequestsAreWhatTheFlashLoaderTakes) {
  EXPECT_EQ(Rtx::PackFlPacket(Rtx::ReadVersionRequest()), Bytes({0x46, 1, 0, 0x0D, 0xAD, 0xD1}));
  EXPECT_EQ(Rtx::WriteConfigRequest(), Bytes({0x0F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x60, 3}));
  EXPECT_EQ(Rtx::EraseRequest(0x12345678), Bytes({0x15, 0x78, 0x56, 0x34, 0x12, 0x30}));
  EXPECT_EQ(Rtx::CalcCrc32Request(0x1000, 0x2000), Bytes({0x13, 0, 0x10, 0, 0, 0, 0x20, 0, 0}));
  const Bytes data = {1, 2, 3};
  EXPECT_EQ(Rtx::ProgramRequest(0x800, data.data(), 2), Bytes({0x11, 0, 8, 0, 0, 1, 0, 1, 2}));
  EXPECT_EQ(Rtx::ProgramRequest(0x800, data.data(), 3), Bytes({0x11, 0, 8, 0, 0, 2, 0, 1, 2, 3, 0xFF}));
}

TEST(RtxPacketTest, HoldsAProgramRequestButNothingLonger) {
  const Bytes chunk(Rtx::kProgramChunk, 0x5A);
  const Bytes payload = Rtx::ProgramRequest(0, chunk.data(), chunk.size());
  ASSERT_EQ(payload.size(), 2055U);
  const Bytes packet = Rtx::PackFlPacket(payload);
  const auto parsed = Rtx::ParseFlPacket(packet);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->m_iCmd, 17);
  EXPECT_EQ(parsed->m_vecData, Bytes(payload.begin() + 1, payload.end()));
  EXPECT_TRUE(Rtx::PackFlPacket(Bytes(2056, 0)).empty());
  EXPECT_TRUE(Rtx::PackFlPacket({}).empty());
}

TEST(RtxPacketTest, DamagedPacketIsRefused) {
  ASSERT_TRUE(Rtx::ParseFlPacket(kErased));
  for (size_t at = 0; at < kErased.size(); ++at) {
    EXPECT_FALSE(Rtx::ParseFlPacket(Changed(kErased, at, static_cast<uint8_t>(kErased[at] ^ 0x10)))) << at;
    EXPECT_FALSE(Rtx::ParseFlPacket(Bytes(kErased.begin(), kErased.begin() + static_cast<long>(at)))) << at;
  }
  EXPECT_FALSE(Rtx::ParseFlPacket({0x46, 0, 0, 0, 0}));
}

TEST(RtxPacketTest, PiecesMakeAPacketWhereverTheyAreCut) {
  for (size_t cut = 1; cut < kErased.size(); ++cut) {
    const auto middle = kErased.begin() + static_cast<long>(cut);
    Rtx::RtxPacketJoiner joiner;
    EXPECT_FALSE(joiner.Add(Bytes(kErased.begin(), middle)));
    const auto payload = joiner.Add(Bytes(middle, kErased.end()));
    ASSERT_TRUE(payload) << cut;
    EXPECT_EQ(payload->m_iCmd, 22);
  }
}

TEST(RtxPacketTest, WhatCannotBecomeAPacketIsDroppedAndTheNextIsUnderstood) {
  Bytes twice = kErased;
  twice.insert(twice.end(), kErased.begin(), kErased.end());
  const Bytes tooLong = Changed(kErased, 2, 0x20);  // 8198 bytes, says its length
  for (const Bytes& rejected : {twice, tooLong, Bytes({0x00, 0x46}), Changed(kErased, 10, 0)}) {
    Rtx::RtxPacketJoiner joiner;
    EXPECT_FALSE(joiner.Add(rejected));
    EXPECT_TRUE(joiner.Add(kErased));
  }
  Rtx::RtxPacketJoiner joiner;
  EXPECT_FALSE(joiner.Add({0x46, 9}));
  joiner.Reset();
  EXPECT_TRUE(joiner.Add(kErased));
}

TEST(RtxPacketTest, OnlyAwaitedConfirmationsAreKnown) {
  for (const uint8_t cmd : Bytes({14, 16, 18, 20, 22})) EXPECT_NE(Rtx::FindConfirmation(cmd), nullptr);
  for (const uint8_t cmd : Bytes({0, 13, 17, 24, 255})) EXPECT_EQ(Rtx::FindConfirmation(cmd), nullptr);
  EXPECT_EQ(Rtx::Crc32Of({20, {0, 0, 0, 0, 0, 0x10, 0, 0, 0x78, 0x56, 0x34, 0x12}}), 0x12345678U);
}

}  // namespace
