// The network side of peer discovery: the interfaces discovery goes out on,
// and a small owned UDP socket.
//
// Thread-safety: ListPeerInterfaces may run on any thread; a YUdpSocket is
// used by one thread at a time (the registrar's), except Close.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <optional>
#include <string>
#include <vector>

#include "Qel/YString.h"

namespace CloudSync {

struct PeerInterface {
  Qel::YString name;
  unsigned int index = 0;
  std::optional<sockaddr_in> broadcast;  // IPv4 interfaces with a broadcast address
  bool ipv6LinkLocal = false;            // has an fe80:: address, so the IPv6 group works
};

// Interfaces that are up, not loopback, and have an IPv4 broadcast address or
// an IPv6 link-local address.
std::vector<PeerInterface> ListPeerInterfaces();

// "10.0.0.7" or "fe80::1%eth0" (the interface named for link-local addresses).
Qel::YString FormatPeerAddress(const sockaddr_storage& address);

// An owned UDP socket (close-on-exec, non-blocking).
class YUdpSocket {
 public:
  YUdpSocket() = default;
  ~YUdpSocket() { Close(); }
  YUdpSocket(const YUdpSocket&) = delete;
  YUdpSocket& operator=(const YUdpSocket&) = delete;

  // Opens an IPv4 (or IPv6-only) socket bound to the wildcard address and
  // `port` (0: any). `shared` lets other engines on this host bind the same
  // port, as every engine's listening socket does. Returns "" or the reason.
  std::string Open(int family, uint16_t port, bool shared);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }
  int GetDescriptor() const { return fd_; }

  // True when the whole datagram went out.
  bool SendTo(const std::string& bytes, const sockaddr* to, socklen_t length);
  // One datagram into `buffer`; -1 when none is waiting. Longer datagrams are
  // reported with their real length (so they can be refused as oversized).
  ssize_t Receive(char* buffer, size_t size, sockaddr_storage* from);

 private:
  int fd_ = -1;
};

}  // namespace CloudSync
