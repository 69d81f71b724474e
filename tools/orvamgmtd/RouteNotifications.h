// The kernel's notifications of network link and address changes
// (NETLINK_ROUTE), which the agent turns into the network-change event.
#pragma once

namespace orvamgmtd {

// A non-blocking, close-on-exec route netlink socket subscribed to link,
// IPv4 and IPv6 address changes; -1 with errno on failure.
int OpenRouteNotifications();

// Reads everything queued on the socket and returns how many link or
// address notifications from the kernel it held. An overrun (the kernel
// dropped notifications) counts as one, since something did change.
int DrainRouteNotifications(int fd);

}  // namespace orvamgmtd
