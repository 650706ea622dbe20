// lunet_intruder SOCKET CLAIMED-GUID TARGET-GUID [COUNT]: connects by hand, claims that address, and prints
// the listener's verdict: "verdict N", "closed" or "refused: <reason>". After a verdict against it, it says
// hello once more; " and more" stands behind the verdict when the listener still listens. With COUNT it makes
// so many connections and keeps them until its input ends. "silent" for the claimed address: no hello, only
// the verdict of the last one.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Frame.h"
#include "SocketFolder.h"

namespace {

struct HelloReply {
  lunet::FrameHeader header;
  lunet::Guid listener;
};

/// -1, and a line of output, when the listener cannot be reached.
int connectTo(const char* path) {
  const auto address = lunet::socketAddress(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (!address || connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    std::printf("refused: %s\n", std::strerror(errno));
    return -1;
  }
  return fd;
}

void handshake(int fd, const char* claimed, const char* target) {
  struct {
    lunet::FrameHeader header;
    lunet::HelloBody body;
  } hello{};
  hello.header.kind = lunet::FrameKind::kHello;
  hello.header.length = sizeof hello.body;
  hello.body = {lunet::parseGuid(claimed), lunet::parseGuid(target)};
  (void)send(fd, &hello, sizeof hello, MSG_NOSIGNAL);
}

void printVerdict(int fd, const char* claimed, const char* target) {
  HelloReply reply{};
  if (recv(fd, &reply, sizeof reply, MSG_WAITALL) != static_cast<ssize_t>(sizeof reply)) {
    std::printf("closed\n");
    return;
  }
  std::printf("verdict %08X", reply.header.channel);
  if (reply.header.channel != lunet::kOk) {
    handshake(fd, claimed, target);
    std::printf("%s", recv(fd, &reply, sizeof reply, MSG_WAITALL) > 0 ? " and more" : "");
  }
  std::printf("\n");
}

}  // namespace

int main(int count, char** words) {
  if (count != 4 && count != 5) {
    return 2;
  }
  const int wanted = count == 5 ? std::atoi(words[4]) : 1;
  const bool silent = std::strcmp(words[2], "silent") == 0;
  for (int i = 0; i < wanted; ++i) {
    const int fd = connectTo(words[1]);
    if (fd < 0) {
      return 0;
    }
    if (!silent) {
      handshake(fd, words[2], words[3]);
      printVerdict(fd, words[2], words[3]);
    } else if (i == wanted - 1) {  // the earlier connections stand
      printVerdict(fd, words[2], words[3]);
    }
  }
  std::fflush(stdout);
  while (count == 5 && std::getchar() != EOF) {
  }
  return 0;
}
