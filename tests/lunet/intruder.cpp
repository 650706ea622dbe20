// lunet_intruder SOCKET CLAIMED-GUID TARGET-GUID: connects by hand, claims that address, and prints what the
// listener says: "verdict N", "closed" or "refused: <reason>".

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Frame.h"
#include "SocketFolder.h"

int main(int count, char** words) {
  if (count != 4) {
    return 2;
  }
  const auto address = lunet::socketAddress(words[1]);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (!address || connect(fd, reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0) {
    std::printf("refused: %s\n", std::strerror(errno));
    return 0;
  }
  struct {
    lunet::FrameHeader header;
    lunet::HelloBody body;
  } hello{};
  hello.header.kind = lunet::FrameKind::kHello;
  hello.header.length = sizeof hello.body;
  hello.body = {lunet::parseGuid(words[2]), lunet::parseGuid(words[3])};
  (void)send(fd, &hello, sizeof hello, MSG_NOSIGNAL);
  struct {
    lunet::FrameHeader header;
    lunet::Guid listener;
  } welcome{};
  if (recv(fd, &welcome, sizeof welcome, MSG_WAITALL) == static_cast<ssize_t>(sizeof welcome)) {
    std::printf("verdict %08X\n", welcome.header.channel);
  } else {
    std::printf("closed\n");
  }
  close(fd);
  return 0;
}
