#include "zel/kxcomm_addr.h"

#include <cstdlib>

#include "zel/zelerr.h"

std::string CommAddr::toString() const {
  std::string a = addr.toString();
  if (addr.isV4Mapped()) return a + ":" + std::to_string(port);
  return "[" + a + "]:" + std::to_string(port);
}

int CommAddr::fromString(const std::string& text) {
  std::string host;
  int p = 0;
  splitHostPort(text, &host, &p);
  return convertCommAddr(host, p, this);
}

bool CommAddr::operator<(const CommAddr& o) const {
  if (addr != o.addr) return addr < o.addr;
  return port < o.port;
}

int convertCommAddr(const std::string& host, int port, CommAddr* out) {
  if (port < 1) return E_INVAL;
  IpAddrArray addrs;
  int rc = ResolveHost(host, &addrs);
  if (rc != 0) return rc;
  size_t pick = 0;
  if (!addrs[0].isV4Mapped()) {
    for (size_t i = 1; i < addrs.size(); i++) {
      if (addrs[i].isV4Mapped()) {
        pick = i;
        break;
      }
    }
  }
  out->addr = addrs[pick];
  out->port = port;
  return E_OK;
}

void splitHostPort(const std::string& text, std::string* host, int* port, int dflt) {
  size_t close = text.rfind(']');
  if (!text.empty() && text[0] == '[' && close != std::string::npos) {
    *host = text.substr(1, close - 1);
    if (close + 1 == text.size()) {
      *port = dflt;
    } else if (text[close + 1] == ':') {
      *port = static_cast<int>(strtol(text.c_str() + text.rfind(':') + 1, nullptr, 10));
    } else {
      *port = 0;
    }
    return;
  }
  size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    *host = text;
    *port = dflt;
    return;
  }
  *host = text.substr(0, colon);
  *port = static_cast<int>(strtol(text.c_str() + colon + 1, nullptr, 10));
}
