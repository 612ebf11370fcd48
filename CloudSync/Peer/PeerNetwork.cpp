#include "CloudSync/Peer/PeerNetwork.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

namespace CloudSync {

std::vector<PeerInterface> ListPeerInterfaces() {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return {};
  std::map<Qel::YString, PeerInterface> found;
  for (ifaddrs* a = all; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_name == nullptr) continue;
    if ((a->ifa_flags & IFF_UP) == 0 || (a->ifa_flags & IFF_LOOPBACK) != 0) continue;
    PeerInterface& item = found[a->ifa_name];
    item.name = a->ifa_name;
    item.index = if_nametoindex(a->ifa_name);
    if (a->ifa_addr->sa_family == AF_INET && (a->ifa_flags & IFF_BROADCAST) != 0 && a->ifa_broadaddr != nullptr) {
      item.broadcast = *reinterpret_cast<const sockaddr_in*>(a->ifa_broadaddr);
    } else if (a->ifa_addr->sa_family == AF_INET6 && (a->ifa_flags & IFF_MULTICAST) != 0) {
      const auto* v6 = reinterpret_cast<const sockaddr_in6*>(a->ifa_addr);
      if (IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr)) item.ipv6LinkLocal = true;
    }
  }
  freeifaddrs(all);
  std::vector<PeerInterface> list;
  for (auto& [name, item] : found) {
    if (item.broadcast || item.ipv6LinkLocal) list.push_back(std::move(item));
  }
  return list;
}

Qel::YString FormatPeerAddress(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
    inet_ntop(AF_INET, &v4->sin_addr, text, sizeof(text));
    return text;
  }
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
  if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
    inet_ntop(AF_INET, &v6->sin6_addr.s6_addr[12], text, sizeof(text));
    return text;
  }
  inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof(text));
  Qel::YString result = text;
  char name[IF_NAMESIZE] = {};
  if (v6->sin6_scope_id != 0 && if_indextoname(v6->sin6_scope_id, name) != nullptr) result += "%" + Qel::YString(name);
  return result;
}

std::string YUdpSocket::Open(int family, uint16_t port, bool shared) {
  Close();
  fd_ = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) return std::strerror(errno);
  const int on = 1;
  if (shared) ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (family == AF_INET) {
    ::setsockopt(fd_, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    any.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof(any)) == 0) return {};
  } else {
    ::setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(port);
    any.sin6_addr = in6addr_any;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&any), sizeof(any)) == 0) return {};
  }
  const std::string why = std::strerror(errno);
  Close();
  return why;
}

void YUdpSocket::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool YUdpSocket::SendTo(const std::string& bytes, const sockaddr* to, socklen_t length) {
  if (fd_ < 0) return false;
  const ssize_t sent = ::sendto(fd_, bytes.data(), bytes.size(), 0, to, length);
  return sent == static_cast<ssize_t>(bytes.size());
}

ssize_t YUdpSocket::Receive(char* buffer, size_t size, sockaddr_storage* from) {
  if (fd_ < 0) return -1;
  socklen_t length = sizeof(*from);
  return ::recvfrom(fd_, buffer, size, MSG_TRUNC, reinterpret_cast<sockaddr*>(from), &length);
}

}  // namespace CloudSync
