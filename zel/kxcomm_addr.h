// Server addresses and what a connection greeting learns about its peer.
#ifndef ZEL_KXCOMM_ADDR_H
#define ZEL_KXCOMM_ADDR_H

#include <string>

#include "classes/basic/ipaddr.h"

constexpr int kDefaultZelPort = 1191;

// A server address: 16-byte IP address (IPv4 held IPv4-mapped) and port.
struct CommAddr {
  IpAddr addr;
  int port = 0;

  // Dotted decimal and ":port" for IPv4-mapped, "[v6]:port" otherwise.
  std::string toString() const;
  // Splits the text with splitHostPort and resolves the host; a port below 1 gives 22.
  int fromString(const std::string& text);

  bool operator<(const CommAddr& o) const;
  bool operator==(const CommAddr& o) const { return addr == o.addr && port == o.port; }
  bool operator!=(const CommAddr& o) const { return !(*this == o); }
};

// Resolves host (a name or numeric address) for the port; a port below 1 gives
// 22. IPv4 is preferred: when the first address is not IPv4 and the list holds
// an IPv4 address, the first IPv4 address is taken.
int convertCommAddr(const std::string& host, int port, CommAddr* out);

// "[h]" -> (h, dflt); "[h]:p" -> (h, p); "[h]x" -> (h, 0); "h" -> (h, dflt);
// otherwise split at the last ":" (so an unbracketed IPv6 address splits at its
// last colon). Ports are read with strtol: non-numeric text reads as 0.
void splitHostPort(const std::string& text, std::string* host, int* port,
                   int dflt = kDefaultZelPort);

// What the connection greeting learnt about the peer.
struct SdrSecInfo {
  int keyGenNumber = -1;        // this client's key generation that was sent; -1 without security
  int peerKeyGenNumber = -1;    // the server's key generation; -1 if it sent none
  std::string peerClusterName;  // empty when the peer sent none
  bool hasPeerClusterName = false;
  int peerVersion = 0;                   // the server's protocol version, 0 if none
  unsigned long long peerClusterId = 0;  // the server's cluster id, 0 if none
};

#endif  // ZEL_KXCOMM_ADDR_H
