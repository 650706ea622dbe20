// The numbers of the wire. Programs of another build may be at the other end after an update.

#include "Frame.h"

#include <gtest/gtest.h>

#include <string>

using lunet::FrameHeader;
using lunet::FrameKind;

TEST(FrameTest, AHeaderIsTheseBytesOnALittleEndianMachine) {
  FrameHeader header;
  header.kind = FrameKind::kRequest;
  header.channel = 0x11223344;
  header.length = 0x55667788;
  header.id = 0x99AABBCCDDEEFF01;
  const std::string expected(
      "LNET"
      "\x01\x00"
      "\x03\x00"
      "\x44\x33\x22\x11"
      "\x88\x77\x66\x55"
      "\x01\xFF\xEE\xDD\xCC\xBB\xAA\x99",
      24);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&header), sizeof header), expected);
}

TEST(FrameTest, TheNumbersOfTheKindsAndOfAProbeAreFixed) {
  EXPECT_EQ(static_cast<int>(FrameKind::kHello), 1);
  EXPECT_EQ(static_cast<int>(FrameKind::kHelloReply), 2);
  EXPECT_EQ(static_cast<int>(FrameKind::kRequest), 3);
  EXPECT_EQ(static_cast<int>(FrameKind::kAnswer), 4);
  EXPECT_EQ(static_cast<int>(FrameKind::kRefusal), 5);
  EXPECT_EQ(static_cast<int>(FrameKind::kOneway), 6);
  EXPECT_EQ(lunet::kProbe, 1u);
}

TEST(FrameTest, TheErrorsThatAFrameCarriesAreFixed) {
  EXPECT_EQ(lunet::kOk, 0u);
  EXPECT_EQ(lunet::kErrNotOpen, 0xE0010001u);
  EXPECT_EQ(lunet::kErrNoTarget, 0xE0010002u);
  EXPECT_EQ(lunet::kErrPeerLost, 0xE0010003u);
  EXPECT_EQ(lunet::kErrTimeout, 0xE0010004u);
  EXPECT_EQ(lunet::kErrTooLarge, 0xE0010005u);
  EXPECT_EQ(lunet::kErrQueueFull, 0xE0010006u);
  EXPECT_EQ(lunet::kErrInUse, 0xE0010007u);
  EXPECT_EQ(lunet::kErrPath, 0xE0010008u);
  EXPECT_EQ(lunet::kErrDenied, 0xE0010009u);
  EXPECT_EQ(lunet::kErrArgument, 0xE001000Au);
  EXPECT_EQ(lunet::kErrNotSame, 0xE001000Bu);
  EXPECT_EQ(lunet::kErrSystem, 0xE001000Cu);
}

TEST(FrameTest, TheLimitsThatBothEndsRelyOnAreFixed) {
  EXPECT_EQ(lunet::kMaxMessageBytes, 268435456u);
  EXPECT_EQ(lunet::kMaxMemberMessageBytes, 8388608u);
  EXPECT_EQ(lunet::kMaxMemberLinks, 32u);
  EXPECT_EQ(lunet::kMaxMemberLinksOfAddress, 4u);
}
