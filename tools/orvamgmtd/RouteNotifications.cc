#include "RouteNotifications.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace orvamgmtd {

int OpenRouteNotifications() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (fd < 0) return -1;
  struct sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int DrainRouteNotifications(int fd) {
  int changes = 0;
  alignas(struct nlmsghdr) char buffer[16384];
  for (;;) {
    struct sockaddr_nl sender = {};
    socklen_t senderLength = sizeof sender;
    const ssize_t n = ::recvfrom(fd, buffer, sizeof buffer, 0,
                                 reinterpret_cast<struct sockaddr*>(&sender), &senderLength);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        ++changes;
        continue;
      }
      return changes;  // EAGAIN: the queue is empty
    }
    // Only the kernel speaks for the network; a local process could send
    // to this socket too.
    if (sender.nl_pid != 0) continue;
    size_t length = static_cast<size_t>(n);
    for (const struct nlmsghdr* message = reinterpret_cast<const struct nlmsghdr*>(buffer);
         NLMSG_OK(message, length); message = NLMSG_NEXT(message, length)) {
      switch (message->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
        case RTM_NEWADDR:
        case RTM_DELADDR:
          ++changes;
          break;
        default:
          break;
      }
    }
  }
}

}  // namespace orvamgmtd
