#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <future>
#include <iterator>
#include <new>
#include <string>

#include "FrameWriter.h"
#include "platform/Descriptor.h"
#include "support/Wait.h"

using lunet::FrameHeader;
using lunet::FrameWriter;

class FrameWriterTest : public testing::Test {
 protected:
  static std::array<int, 2> makePair() {
    std::array<int, 2> pair{-1, -1};
    (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data());
    return pair;
  }

  lunet::Error write(std::size_t size) {
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      body[i] = static_cast<char>(i * 7 + (i >> 8));
    }
    FrameHeader header;
    header.length = static_cast<std::uint32_t>(size);
    written.append(reinterpret_cast<const char*>(&header), sizeof header).append(body);
    return writer.write(header, body.data());
  }

  void fillSocket() const {
    const std::string block(1 << 20, 'f');
    while (send(ours.get(), block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    while (send(ours.get(), block.data(), 1, MSG_DONTWAIT) > 0) {
    }
  }

  /// Takes the bytes that are in the socket now; their number.
  std::size_t drainSocket() {
    std::string block(1 << 20, '\0');
    std::size_t total = 0;
    for (;;) {
      const ssize_t count = recv(theirs.get(), block.data(), block.size(), MSG_DONTWAIT);
      if (count <= 0) {
        return total;
      }
      total += static_cast<std::size_t>(count);
      received.append(block, 0, static_cast<std::size_t>(count));
    }
  }

  std::string written;   ///< each frame of write(), whatever its result
  std::string received;  ///< by drainSocket()
  const std::array<int, 2> pair{makePair()};
  platform::Descriptor ours{pair[0]};
  platform::Descriptor theirs{pair[1]};
  bool wanted = false;
  int timesWanted = 0;
  bool noMemory = false;
  FrameWriter writer{ours.get(), [this](bool want) {
                       if (noMemory) {
                         throw std::bad_alloc();
                       }
                       wanted = want;
                       timesWanted += want ? 1 : 0;
                     }};
};

TEST_F(FrameWriterTest, WhatTheSocketTakesGoesOutAtOnce) {
  EXPECT_EQ(write(300), lunet::kOk);
  EXPECT_EQ(writer.queuedBytes(), 0u);
  EXPECT_FALSE(wanted);
  EXPECT_EQ(drainSocket(), 300 + sizeof(FrameHeader));
}

TEST_F(FrameWriterTest, WhatItDoesNotTakeWaitsAndComesWholeAndInOrder) {
  EXPECT_EQ(write(3 << 20), lunet::kOk);
  EXPECT_EQ(write(10), lunet::kOk);
  EXPECT_TRUE(wanted);
  drainSocket();
  while (writer.queuedBytes() > 0) {
    ASSERT_TRUE(writer.flush());
    drainSocket();
  }
  EXPECT_FALSE(wanted);
  EXPECT_TRUE(received == written);  // EXPECT_EQ would print both
}

TEST_F(FrameWriterTest, SpaceIsWantedOnceForAllThatWaits) {
  for (int round = 1; round <= 2; ++round) {
    EXPECT_EQ(write(3 << 20), lunet::kOk);
    EXPECT_EQ(write(10), lunet::kOk);
    EXPECT_EQ(timesWanted, round);
    while (writer.queuedBytes() > 0) {
      drainSocket();
      ASSERT_TRUE(writer.flush());
    }
  }
}

TEST_F(FrameWriterTest, AFullSocketIsNoEnd) {
  fillSocket();
  EXPECT_EQ(write(10), lunet::kOk);
  EXPECT_TRUE(wanted);
  EXPECT_TRUE(writer.flush());
  EXPECT_EQ(writer.queuedBytes(), 10 + sizeof(FrameHeader));
}

TEST_F(FrameWriterTest, WhoWaitsForTheQueueIsWokenWhenItIsEmpty) {
  write(3 << 20);
  auto waiting = std::async(std::launch::async, [this] {
    writer.waitUntilDrained(std::chrono::steady_clock::now() + std::chrono::hours(1));
  });
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
  while (writer.queuedBytes() > 0) {
    drainSocket();
    ASSERT_TRUE(writer.flush());
  }
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  writer.close();  // ends the wait
}

TEST_F(FrameWriterTest, AFullQueueTakesNoMoreAndKeepsWhatItHas) {
  while (writer.queuedBytes() < lunet::kQueueFullBytes) {
    ASSERT_EQ(write(1 << 20), lunet::kOk);
  }
  const std::size_t queued = writer.queuedBytes();
  EXPECT_EQ(write(1), lunet::kErrQueueFull);
  EXPECT_EQ(writer.queuedBytes(), queued);
}

TEST_F(FrameWriterTest, AQueueIsFullAtItsLimitAndNotAByteBelow) {
  for (const std::size_t below : {std::size_t{1}, std::size_t{0}}) {
    FrameWriter own{ours.get(), [](bool) {}};
    fillSocket();
    const std::string body(lunet::kQueueFullBytes - sizeof(FrameHeader) - below, 'w');
    FrameHeader header;
    header.length = static_cast<std::uint32_t>(body.size());
    ASSERT_EQ(own.write(header, body.data()), lunet::kOk);
    ASSERT_EQ(own.queuedBytes(), lunet::kQueueFullBytes - below);
    EXPECT_EQ(own.write(FrameHeader{}, nullptr), below == 0 ? lunet::kErrQueueFull : lunet::kOk);
  }
}

TEST_F(FrameWriterTest, WhoWaitsForTheQueueIsWokenOnceItIsEmpty) {
  while (writer.queuedBytes() < (4U << 20)) {
    ASSERT_EQ(write(1 << 20), lunet::kOk);
  }
  std::atomic<bool> waits{false};
  const auto waiting = std::async(std::launch::async, [&] {
    waits = true;
    writer.waitUntilDrained(std::chrono::steady_clock::now() + std::chrono::seconds(40));
  });
  ASSERT_TRUE(testsupport::waitFor([&] { return waits.load(); }));
  while (writer.queuedBytes() > 0) {
    drainSocket();
    ASSERT_TRUE(writer.flush());
  }
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(FrameWriterTest, WhoWaitsForTheQueueIsWokenWhenTheWriterIsClosed) {
  write(3 << 20);
  std::atomic<bool> waits{false};
  const auto waiting = std::async(std::launch::async, [&] {
    waits = true;
    writer.waitUntilDrained(std::chrono::steady_clock::now() + std::chrono::seconds(40));
  });
  ASSERT_TRUE(testsupport::waitFor([&] { return waits.load(); }));
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(10)), std::future_status::timeout);
  writer.close();
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

TEST_F(FrameWriterTest, AnEndedConnectionIsReportedAtOnce) {
  theirs.reset();
  EXPECT_EQ(write(10), lunet::kErrPeerLost);
}

TEST_F(FrameWriterTest, AConnectionThatEndsWithBytesQueuedFailsTheFlush) {
  write(3 << 20);
  theirs.reset();
  EXPECT_FALSE(writer.flush());
}

TEST_F(FrameWriterTest, AClosedWriterTakesNothingAndHasNothing) {
  write(3 << 20);
  writer.close();
  EXPECT_EQ(writer.queuedBytes(), 0u);
  EXPECT_EQ(write(10), lunet::kErrPeerLost);
  EXPECT_FALSE(writer.flush());
}

TEST_F(FrameWriterTest, AFrameOfWhichOnlyAPartWentOutEndsTheConnection) {
  noMemory = true;
  EXPECT_EQ(write(3 << 20), lunet::kErrSystem);
  EXPECT_GT(drainSocket(), 0u);
  char byte = 0;
  EXPECT_EQ(recv(theirs.get(), &byte, 1, 0), 0);  // the end, not the next frame
  EXPECT_EQ(write(10), lunet::kErrPeerLost);
  EXPECT_FALSE(writer.flush());
}

/// No memory for the rest of a frame. In a fresh process with limited memory: a fork of this process would
/// have free memory of earlier tests.
TEST_F(FrameWriterTest, AFrameThatFindsNoMemoryForItsRestEndsTheConnection) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' memory cannot be limited";
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string body(8 << 20, 'w');
  FrameHeader header;
  header.length = static_cast<std::uint32_t>(body.size());
  const auto writeWithoutMemory = [&] {
    const rlimit limit{1 << 20, 1 << 20};  // below the use of the process: no more memory
    setrlimit(RLIMIT_AS, &limit);
    const bool broken = writer.write(header, body.data()) == lunet::kErrSystem;
    const bool gone = writer.write(header, body.data()) == lunet::kErrPeerLost;
    _exit(broken && gone ? 0 : 1);
  };
  EXPECT_EXIT(writeWithoutMemory(), testing::ExitedWithCode(0), "");
#endif
}

namespace {

/// From here on each send of this process fails with that errno value. False when the kernel does not do
/// that.
bool failSends(unsigned error) {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendto, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendmsg, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(rules)), rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

struct SendErrorRow {
  const char* name;
  int error;
  lunet::Error result;
};

/// In a child, whose sends fail from there on.
class SendErrorTest : public FrameWriterTest, public testing::WithParamInterface<SendErrorRow> {};

TEST_P(SendErrorTest, WaitsWhenItPassesAndElseIsTheEnd) {
  const auto writeWithoutSending = [this] {
    const bool asExpected = failSends(static_cast<unsigned>(GetParam().error)) &&
                            write(10) == GetParam().result &&
                            (GetParam().result == lunet::kErrPeerLost || writer.flush());
    _exit(asExpected ? 0 : 1);
  };
  EXPECT_EXIT(writeWithoutSending(), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Errors, SendErrorTest,
                         testing::Values(SendErrorRow{"FullSocket", EAGAIN, lunet::kOk},
                                         SendErrorRow{"NoBuffers", ENOBUFS, lunet::kOk},
                                         SendErrorRow{"NoMemory", ENOMEM, lunet::kOk},
                                         SendErrorRow{"NobodyThere", EPIPE, lunet::kErrPeerLost}),
                         [](const auto& row) { return std::string(row.param.name); });
