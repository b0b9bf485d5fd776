#include "platform/psockmode.h"

#include <errno.h>
#include <fcntl.h>

int PlatGetNonBlocking(int fd, bool* on) {
  int fl = ::fcntl(fd, F_GETFL, 0);
  if (fl < 0) return errno;
  *on = (fl & O_NONBLOCK) != 0;
  return 0;
}
