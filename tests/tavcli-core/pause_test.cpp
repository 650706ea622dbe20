#include "bin/Pause.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "bin/BusState.h"

namespace {

using std::chrono::seconds;
using tavcli::IPause;
using tavcli::SignalAwarePause;

constexpr seconds kLong{3600};

/// A pause with short waits, so that a test reaches the end of a wait.
class ShortPause : public SignalAwarePause {
 public:
  End sleep(seconds time) override { return wait(std::chrono::milliseconds(time.count()), false); }
};

TEST(Pause, EndsWithItsTime) {
  ShortPause pause;
  EXPECT_EQ(pause.sleep(seconds(20)), IPause::End::kElapsed);
}

TEST(Pause, IsEndedByAFinalState) {
  SignalAwarePause pause;
  std::thread other([] { tavcli::announceFinalState(); });
  EXPECT_EQ(pause.sleepUntilFinal(kLong), IPause::End::kFinalState);
  other.join();
}

TEST(Pause, IsEndedByAFinalStateThatCameBefore) {
  SignalAwarePause pause;
  tavcli::announceFinalState();
  EXPECT_EQ(pause.sleepUntilFinal(kLong), IPause::End::kFinalState);
}

TEST(Pause, ThatIsASleepIsNotEndedByAFinalState) {
  ShortPause pause;
  tavcli::announceFinalState();
  EXPECT_EQ(pause.sleep(seconds(20)), IPause::End::kElapsed);
  EXPECT_TRUE(tavcli::takeFinalState()) << "it waits for the next wait";
}

TEST(Pause, AnnouncementsCountOnce) {
  tavcli::announceFinalState();
  tavcli::announceFinalState();
  EXPECT_TRUE(tavcli::takeFinalState());
  EXPECT_FALSE(tavcli::takeFinalState());
}

/// Gives the signal its default effect for the test, and restores the effect and the mask afterwards. No
/// signal stays pending.
class PauseSignal : public testing::TestWithParam<int> {
 protected:
  PauseSignal() {
    before_ = signal(GetParam(), SIG_IGN);  // drops a pending signal
    pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore_);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, GetParam());
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    signal(GetParam(), SIG_DFL);
  }
  ~PauseSignal() override {
    signal(GetParam(), SIG_IGN);
    pthread_sigmask(SIG_SETMASK, &maskBefore_, nullptr);
    signal(GetParam(), before_);
  }

 private:
  sighandler_t before_ = SIG_DFL;
  sigset_t maskBefore_{};
};

TEST_P(PauseSignal, EndsAWait) {
  SignalAwarePause pause;
  kill(getpid(), GetParam());
  EXPECT_EQ(pause.sleep(kLong), IPause::End::kSignal);
}

TEST_P(PauseSignal, EndsTheProcessAsUncaughtInTheEnd) {
  EXPECT_EXIT(
      {
        SignalAwarePause pause;
        kill(getpid(), GetParam());
        pause.sleepUntilFinal(kLong);
        pause.endBySignal();
      },
      testing::KilledBySignal(GetParam()), "");
}

TEST_P(PauseSignal, ThatWasIgnoredStaysIgnored) {
  signal(GetParam(), SIG_IGN);
  ShortPause pause;
  kill(getpid(), GetParam());
  EXPECT_EQ(pause.sleep(seconds(20)), IPause::End::kElapsed);
}

INSTANTIATE_TEST_SUITE_P(Pause, PauseSignal, testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& row) { return std::string("Sig") + sigabbrev_np(row.param); });

TEST(Pause, WithoutASignalDoesNotEndTheProcess) {
  SignalAwarePause pause;
  pause.endBySignal();
}

TEST(Pause, LooksWhileItWaits) {
  tavcli::takeFinalState();  // of an earlier test
  SignalAwarePause pause;
  int looks = 0;
  pause.setEverySecond([&] {
    if (++looks == 1) {
      tavcli::announceFinalState();
    }
  });
  EXPECT_EQ(pause.sleepUntilFinal(kLong), IPause::End::kFinalState);
  EXPECT_GE(looks, 1);
}

}  // namespace
