// The console with short waits, for tests of runs that take minutes. All else is the same program.
// TAV_TEST_SECOND_MS: the length of a second in the waits of an unattended run, in milliseconds.
// TAV_TEST_NO_UUID: when set, the UUID generator fails.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bin/Console.h"
#include "bin/Pause.h"
#include "platform/StandardStreams.h"

namespace {

class QuickPause : public tavcli::SignalAwarePause {
 public:
  explicit QuickPause(int secondMs) : secondMs_(secondMs) {}
  End sleep(std::chrono::seconds time) override { return wait(scaled(time), false); }
  End sleepUntilFinal(std::chrono::seconds time) override { return wait(scaled(time), true); }

 private:
  std::chrono::milliseconds scaled(std::chrono::seconds time) const {
    return std::chrono::milliseconds(time.count() * secondMs_);
  }
  int secondMs_;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  platform::openClosedStandardStreams();
  const char* second = std::getenv("TAV_TEST_SECOND_MS");
  const int secondMs = second != nullptr ? std::atoi(second) : 10;
  tavcli::Surroundings surroundings;
  surroundings.makePause = [secondMs] { return std::make_unique<QuickPause>(secondMs); };
  if (std::getenv("TAV_TEST_NO_UUID") != nullptr) {
    surroundings.generateUuid = [](std::string&) { return 1; };
  }
  return tavcli::runConsole(std::vector<std::string>(arguments, arguments + argumentCount), surroundings);
}
