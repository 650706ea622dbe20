#include "worker/Channel.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/Posix.h"
#include "worker/Messages.h"

namespace agent {
namespace {

union ControlBuffer {
  cmsghdr align;
  std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

// Takes the packet's descriptor. False for several descriptors: all but the last are closed.
bool takeDescriptor(msghdr& header, platform::Descriptor& taken) {
  std::size_t count = 0;
  for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
       control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= control->cmsg_len; at += sizeof(int)) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(control) + (at - CMSG_LEN(0)), sizeof fd);
      taken.reset(fd);
      ++count;
    }
  }
  return count <= 1;
}

}  // namespace

platform::Expected<std::pair<Channel, Channel>> Channel::pair() {
  std::array<int, 2> ends{-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return platform::failure(platform::errnoText(errno));
  }
  return std::pair(Channel(platform::Descriptor(ends[0])), Channel(platform::Descriptor(ends[1])));
}

tl::expected<void, NotSent> Channel::send(std::string_view bytes, int fd) const {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  ControlBuffer buffer{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (fd >= 0) {
    header.msg_control = buffer.bytes.data();
    header.msg_controllen = buffer.bytes.size();
    cmsghdr* control = CMSG_FIRSTHDR(&header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(control), &fd, sizeof fd);
  }
  ssize_t sent = -1;
  do {
    sent = sendmsg(fd_.get(), &header, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent != static_cast<ssize_t>(bytes.size())) {
    return tl::unexpected(NotSent{errno == EPIPE || errno == ECONNRESET, platform::errnoText(errno)});
  }
  return {};
}

void Channel::shutDown() const {
  shutdown(fd_.get(), SHUT_RDWR);
}

Channel::Received Channel::receive(Packet& packet, bool wait) const {
  packet.fd.reset();
  std::array<char, kLongestPacket> bytes;  // NOLINT: left unfilled, because every file passes here
  iovec part{bytes.data(), bytes.size()};
  ControlBuffer buffer{};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = buffer.bytes.data();
  header.msg_controllen = buffer.bytes.size();
  ssize_t got = -1;
  do {
    got = recvmsg(fd_.get(), &header, MSG_CMSG_CLOEXEC | (wait ? 0 : MSG_DONTWAIT));
    // ECONNRESET: the other end died with unread packets. The kernel reports this error once. Packets that
    // the other end sent before can still be received.
  } while (got < 0 && (errno == EINTR || errno == ECONNRESET));
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    return Received::kNothing;
  }
  if (got <= 0) {
    return Received::kEnded;
  }
  const bool atMostOne = takeDescriptor(header, packet.fd);
  if (!atMostOne || (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    packet.fd.reset();
    return Received::kEnded;
  }
  packet.bytes.assign(bytes.data(), static_cast<std::size_t>(got));
  return Received::kPacket;
}

}  // namespace agent
