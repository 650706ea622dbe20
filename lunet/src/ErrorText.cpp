#include "lunet/ErrorText.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "lunet/Lunet.h"

namespace lunet {

namespace {

struct Row {
  Error error;
  const char* text;
};

constexpr std::array kTexts{
    Row{kOk, "success"},
    Row{kErrNotOpen, "the endpoint is not open"},
    Row{kErrNoTarget, "nobody is at that address now"},
    Row{kErrPeerLost, "the peer went away before it answered"},
    Row{kErrTimeout, "no answer within the time given"},
    Row{kErrTooLarge, "the message is too large"},
    Row{kErrQueueFull, "the receiver does not take its messages"},
    Row{kErrInUse, "the address is in use"},
    Row{kErrPath, "the socket folder cannot be used"},
    Row{kErrDenied, "access is denied"},
    Row{kErrArgument, "a wrong argument"},
    Row{kErrNotSame, "another process is at that address"},
    Row{kErrSystem, "the system refused"},
};

}  // namespace

std::string describeError(std::uint32_t error) {
  const auto row =
      std::find_if(kTexts.begin(), kTexts.end(), [error](const Row& each) { return each.error == error; });
  char number[16];
  std::snprintf(number, sizeof number, " (0x%08X)", error);
  return (row == kTexts.end() ? std::string("unknown error") : row->text) + number;
}

}  // namespace lunet
