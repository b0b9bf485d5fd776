#include "classes/basic/ipaddr.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>

namespace {

const unsigned char kV4Prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

bool IpAddr::isV4Mapped() const {
  return memcmp(bytes, kV4Prefix, 12) == 0;
}

std::string IpAddr::toString() const {
  char buf[INET6_ADDRSTRLEN];
  if (isV4Mapped()) {
    inet_ntop(AF_INET, bytes + 12, buf, sizeof buf);
  } else {
    inet_ntop(AF_INET6, bytes, buf, sizeof buf);
  }
  return buf;
}

socklen_t IpAddr::toSockaddr(int port, struct sockaddr_storage* ss) const {
  memset(ss, 0, sizeof *ss);
  if (isV4Mapped()) {
    auto* sin = reinterpret_cast<struct sockaddr_in*>(ss);
    sin->sin_family = AF_INET;
    sin->sin_port = htons(static_cast<unsigned short>(port));
    memcpy(&sin->sin_addr, bytes + 12, 4);
    return sizeof *sin;
  }
  auto* sin6 = reinterpret_cast<struct sockaddr_in6*>(ss);
  sin6->sin6_family = AF_INET6;
  sin6->sin6_port = htons(static_cast<unsigned short>(port));
  memcpy(&sin6->sin6_addr, bytes, 16);
  return sizeof *sin6;
}

IpAddr IpAddr::fromV4(unsigned int hostOrderAddr) {
  IpAddr a;
  memcpy(a.bytes, kV4Prefix, 12);
  a.bytes[12] = static_cast<unsigned char>(hostOrderAddr >> 24);
  a.bytes[13] = static_cast<unsigned char>(hostOrderAddr >> 16);
  a.bytes[14] = static_cast<unsigned char>(hostOrderAddr >> 8);
  a.bytes[15] = static_cast<unsigned char>(hostOrderAddr);
  return a;
}

bool IpAddr::fromSockaddr(const struct sockaddr* sa, IpAddr* out, int* portOut) {
  if (sa->sa_family == AF_INET) {
    const auto* sin = reinterpret_cast<const struct sockaddr_in*>(sa);
    memcpy(out->bytes, kV4Prefix, 12);
    memcpy(out->bytes + 12, &sin->sin_addr, 4);
    if (portOut) *portOut = ntohs(sin->sin_port);
    return true;
  }
  if (sa->sa_family == AF_INET6) {
    const auto* sin6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
    memcpy(out->bytes, &sin6->sin6_addr, 16);
    if (portOut) *portOut = ntohs(sin6->sin6_port);
    return true;
  }
  return false;
}

bool IpAddr::parse(const std::string& text, IpAddr* out) {
  unsigned char v4[4];
  if (inet_pton(AF_INET, text.c_str(), v4) == 1) {
    memcpy(out->bytes, kV4Prefix, 12);
    memcpy(out->bytes + 12, v4, 4);
    return true;
  }
  return inet_pton(AF_INET6, text.c_str(), out->bytes) == 1;
}

bool IpAddr::operator==(const IpAddr& o) const {
  return memcmp(bytes, o.bytes, 16) == 0;
}

bool IpAddr::operator<(const IpAddr& o) const {
  return memcmp(bytes, o.bytes, 16) < 0;
}

int ResolveHost(const std::string& host, IpAddrArray* out) {
  out->clear();
  struct addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  struct addrinfo* res = nullptr;
  int rc = getaddrinfo(host.c_str(), nullptr, &hints, &res);
  if (rc != 0) {
    if (rc == EAI_SYSTEM && errno != 0) return errno;
    return rc == EAI_MEMORY ? ENOMEM : EHOSTUNREACH;
  }
  for (struct addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
    IpAddr a;
    if (IpAddr::fromSockaddr(ai->ai_addr, &a, nullptr)) out->push_back(a);
  }
  freeaddrinfo(res);
  return out->empty() ? EHOSTUNREACH : 0;
}

int GetLocalAddrs(IpAddrArray* out) {
  out->clear();
  struct ifaddrs* ifs = nullptr;
  if (getifaddrs(&ifs) < 0) return errno;
  for (struct ifaddrs* i = ifs; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr) continue;
    IpAddr a;
    if (IpAddr::fromSockaddr(i->ifa_addr, &a, nullptr)) out->push_back(a);
  }
  freeifaddrs(ifs);
  return 0;
}
