#include "zel/zelfiles.h"

#include <errno.h>
#include <libgen.h>

#include <cstdlib>
#include <cstring>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "zel/paxosutils.h"

std::string tmpFileName(const std::string& path) {
  return PlatTmpName(path);
}

int renameReplaceIfTargetExists(const std::string& src, const std::string& target) {
  int rc = PlatRename(src.c_str(), target.c_str());
  if (rc == EEXIST) {
    rc = PlatUnlink(target.c_str());
    if (rc == 0) rc = PlatRename(src.c_str(), target.c_str());
    trace(rc == 0 ? 4 : 1, "rename('%s', '%s'): unlink & rename returns rc=%d", src.c_str(),
          target.c_str(), rc);
    return rc;
  }
  trace(rc == 0 ? 4 : 1, "rename('%s', '%s') returns rc=%d", src.c_str(), target.c_str(), rc);
  return rc;
}

int renameSkipIfTargetExists(const std::string& src, const std::string& target) {
  struct stat st;
  int rc;
  if (PlatStat(target.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    rc = PlatUnlink(src.c_str());
    trace(rc == 0 ? 4 : 1, "rename('%s', '%s'): target exists; unlink source returns rc=%d",
          src.c_str(), target.c_str(), rc);
    return rc;
  }
  rc = PlatRename(src.c_str(), target.c_str());
  if (rc == EEXIST) {
    rc = PlatUnlink(src.c_str());
    trace(rc == 0 ? 4 : 1, "rename('%s', '%s'): rename rc=EEXIST; unlink source returns rc=%d",
          src.c_str(), target.c_str(), rc);
    return rc;
  }
  trace(rc == 0 ? 4 : 1, "rename('%s', '%s') returns rc=%d", src.c_str(), target.c_str(), rc);
  return rc;
}

std::string ParseFileNameFromPath(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return std::string();
  return path.substr(slash + 1);
}

std::string ParseDirFromPath(const std::string& path) {
  char* pathc = strdup(path.c_str());
  ZASSERT_T(pathc != nullptr, "pathc");
  std::string dir = dirname(pathc);
  free(pathc);
  return dir;
}

int getFileSize(const std::string& path, long long* fSizeP) {
  ZASSERT_T(fSizeP != nullptr, "fSizeP");
  *fSizeP = -1;
  struct stat st;
  int rc = PlatStat(path.c_str(), &st);
  if (rc != 0) {
    trace(3, "Get status for file '%s' failed (%d)", path.c_str(), rc);
    return rc;
  }
  *fSizeP = static_cast<long long>(st.st_size);
  trace(5, "Size of file '%s': %lld bytes", path.c_str(), *fSizeP);
  return 0;
}
