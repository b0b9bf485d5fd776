// The server side of a connection, reduced to what small stand-in servers need
// (the remote-disk tests and the whole-process benchmark): blocking reads and
// writes of the greeting and of framed messages. No test framework is involved.
#ifndef TESTS_SUPPORT_MINISERVER_H
#define TESTS_SUPPORT_MINISERVER_H

#include <sys/socket.h>

#include <string>

#include "zel/kxcomm.h"
#include "zel/paxosutils.h"
#include "zel/zelmsg.h"

namespace miniserver {

inline bool ReadAll(int fd, char* p, size_t n) {
  while (n > 0) {
    ssize_t got = recv(fd, p, n, 0);
    if (got <= 0) return false;
    p += got;
    n -= static_cast<size_t>(got);
  }
  return true;
}

inline bool SendMsg(int fd, int type, const std::string& body) {
  std::string m(8, '\0');
  DumpUInt32(&m[0], static_cast<unsigned int>(body.size()));
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  m[4] = static_cast<char>(code >> 8);
  m[5] = static_cast<char>(code);
  m += body;
  return send(fd, m.data(), m.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(m.size());
}

// Bodies above 1 MiB are refused: these servers only see small requests.
inline bool RecvMsg(int fd, int* type, std::string* body) {
  char h[8];
  if (!ReadAll(fd, h, sizeof h)) return false;
  unsigned int len = 0;
  LoadUInt32(h, h + 8, &len);
  *type =
      ((static_cast<unsigned char>(h[4]) << 8) | static_cast<unsigned char>(h[5])) - kMsgCodeBias;
  if (len > (1u << 20)) return false;
  body->assign(len, '\0');
  return ReadAll(fd, &(*body)[0], len);
}

// Reads the client's greeting and its record chain, and accepts it.
inline bool AnswerGreeting(int fd) {
  char hdr[28];
  if (!ReadAll(fd, hdr, sizeof hdr)) return false;
  unsigned int len = 0;
  LoadUInt32(hdr + 20, hdr + sizeof hdr, &len);
  for (int i = 0; len != 0 && i < 8 && len < 65536; i++) {
    std::string rec(len, '\0');
    if (!ReadAll(fd, &rec[0], len)) return false;
    LoadUInt32(rec.data() + 4, rec.data() + len, &len);
  }
  char answer[20] = {};
  DumpUInt32(answer, kGreetingMagic);
  return send(fd, answer, sizeof answer, MSG_NOSIGNAL) == sizeof answer;
}

}  // namespace miniserver

#endif  // TESTS_SUPPORT_MINISERVER_H
