#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>

#include "Arguments.h"
#include "EndpointList.h"
#include "Listener.h"
#include "Session.h"
#include "lunet/ErrorText.h"
#include "platform/StandardStreams.h"
#include "platform/Text.h"

namespace {

using namespace lunetctl;

enum ExitStatus { kDone = 0, kFailed = 1, kUsage = 2 };

constexpr std::uint32_t kTimeoutMs = 30000;

void call(const Arguments& arguments) {
  Session session(arguments.runtime);
  session.openAnywhere();
  std::uint32_t error = 0;
  char* reply = nullptr;
  std::uint32_t length = 0;
  session.endpoint().SyncSend(arguments.guid, lunet::kRequestChannel, arguments.text.data(),
                              static_cast<std::uint32_t>(arguments.text.size()), &error, &reply, &length,
                              kTimeoutMs);
  if (error != 0) {
    throw Failure("no answer from " + lunet::formatGuid(arguments.guid) + ": " + lunet::describeError(error));
  }
  const std::string answer(reply, length);
  std::cout << (isatty(STDOUT_FILENO) == 1 ? platform::visibleText(answer) : answer) << '\n';
  session.endpoint().FreeBuffer(reply);
}

void send(const Arguments& arguments) {
  Session session(arguments.runtime);
  session.openAnywhere();
  const std::uint32_t error =
      session.endpoint().OnewaySend(arguments.guid, lunet::kOnewayChannel, arguments.text.data(),
                                    static_cast<std::uint32_t>(arguments.text.size()));
  if (error != 0) {
    throw Failure("nothing was sent to " + lunet::formatGuid(arguments.guid) + ": " +
                  lunet::describeError(error));
  }
}

void listen(const Arguments& arguments) {
  Session session(arguments.runtime);
  Listener(session.endpoint()).run(std::cin, [&] { session.open(arguments.guid); });
}

void run(const Arguments& arguments) {
  switch (arguments.command) {
    case Command::kList:
      return listEndpoints(arguments.runtime);
    case Command::kCall:
      return call(arguments);
    case Command::kSend:
      return send(arguments);
    case Command::kListen:
      return listen(arguments);
  }
}

}  // namespace

int main(int count, char** words) {
  platform::openClosedStandardStreams();
  try {
    signal(SIGPIPE, SIG_IGN);
    const auto arguments = parseArguments({words + 1, words + count});
    if (!arguments) {
      std::fprintf(stderr, "lunetctl: %s (lunetctl --help tells more)\n", arguments.error().c_str());
      return kUsage;
    }
    if (arguments->help) {
      std::cout << helpText();
    } else {
      run(*arguments);
    }
    if (!std::cout.flush() || std::fflush(stdout) != 0) {
      throw Failure("standard output cannot be written");
    }
    return kDone;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lunetctl: %s\n", error.what());
    return kFailed;
  }
}
