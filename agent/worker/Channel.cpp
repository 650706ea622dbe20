#include "worker/Channel.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "worker/Messages.h"

namespace agent {
namespace {

union ControlBuffer {
  cmsghdr align;
  std::array<char, CMSG_SPACE(sizeof(int))> bytes;
};

// Keeps the one descriptor that a packet may bring; of several the last, the others are closed, and false.
bool keepDescriptor(msghdr& header, platform::Descriptor& kept) {
  std::size_t count = 0;
  for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
       control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_RIGHTS) {
      continue;
    }
    for (std::size_t at = CMSG_LEN(0); at + sizeof(int) <= control->cmsg_len; at += sizeof(int)) {
      int fd = -1;
      std::memcpy(&fd, CMSG_DATA(control) + (at - CMSG_LEN(0)), sizeof fd);
      kept.reset(fd);
      ++count;
    }
  }
  return count <= 1;
}

}  // namespace

std::pair<Channel, Channel> Channel::pair() {
  std::array<int, 2> ends{-1, -1};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    return {};
  }
  return {Channel(platform::Descriptor(ends[0])), Channel(platform::Descriptor(ends[1]))};
}

bool Channel::send(std::string_view bytes, int fd) const {
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
  return sent == static_cast<ssize_t>(bytes.size());
}

void Channel::shutDown() const {
  shutdown(fd_.get(), SHUT_RDWR);
}

Channel::Received Channel::receive(Packet& packet, bool wait) const {
  packet.fd.reset();
  std::array<char, kLongestPacket> bytes;  // NOLINT: not filled beforehand, this is on the way of every file
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
    // ECONNRESET: the other end died with packets of ours unread. It is told once; what was sent to us
    // before is still there, and then the end.
  } while (got < 0 && (errno == EINTR || errno == ECONNRESET));
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
    return Received::kNothing;
  }
  if (got <= 0) {
    return Received::kEnded;
  }
  const bool atMostOne = keepDescriptor(header, packet.fd);
  if (!atMostOne || (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    packet.fd.reset();
    return Received::kEnded;
  }
  packet.bytes.assign(bytes.data(), static_cast<std::size_t>(got));
  return Received::kPacket;
}

}  // namespace agent
