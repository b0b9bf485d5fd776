// IP addresses in the 16-byte form used throughout: an IPv4 address is held
// IPv4-mapped (::ffff:a.b.c.d), so one comparison covers both families.
#ifndef CLASSES_BASIC_IPADDR_H
#define CLASSES_BASIC_IPADDR_H

#include <sys/socket.h>

#include <string>
#include <vector>

struct IpAddr {
  unsigned char bytes[16] = {};

  bool isV4Mapped() const;
  // Dotted decimal for IPv4-mapped addresses, IPv6 text otherwise (no brackets).
  std::string toString() const;
  // Fills a sockaddr_in (mapped addresses) or sockaddr_in6 for the port; returns its length.
  socklen_t toSockaddr(int port, struct sockaddr_storage* ss) const;

  static IpAddr fromV4(unsigned int hostOrderAddr);
  // Accepts AF_INET and AF_INET6; returns false for other families.
  static bool fromSockaddr(const struct sockaddr* sa, IpAddr* out, int* portOut);
  // Parses a numeric IPv4 or IPv6 text.
  static bool parse(const std::string& text, IpAddr* out);

  bool operator==(const IpAddr& o) const;
  bool operator!=(const IpAddr& o) const { return !(*this == o); }
  bool operator<(const IpAddr& o) const;
};

using IpAddrArray = std::vector<IpAddr>;

// Resolves a host name or numeric address; the addresses come in resolver order
// with IPv4 results mapped. Returns 0 or an error number (EHOSTUNREACH when the
// name does not resolve).
int ResolveHost(const std::string& host, IpAddrArray* out);

// Every address of every local interface, in the 16-byte form.
int GetLocalAddrs(IpAddrArray* out);

#endif  // CLASSES_BASIC_IPADDR_H
