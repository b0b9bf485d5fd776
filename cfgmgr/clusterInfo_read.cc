// Reading the authorized-keys file.
#include <errno.h>
#include <fcntl.h>
#include <strings.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cfgmgr/clusterInfo.h"
#include "platform/pfile.h"
#include "transport/seckeyfile.h"
#include "transport/sectransport.h"
#include "zel/zelerr.h"

namespace {

// Lines are read through a deliberately small buffer: a longer line arrives in
// pieces and each piece is a line of its own.
constexpr int kLineBuf = 128;

struct Failure {
  int err;
  int rc;
};

// The text of the line up to its first white space.
void CutAtWhiteSpace(char* line) {
  for (char* p = line; *p; ++p) {
    if (isspace(static_cast<unsigned char>(*p))) {
      *p = '\0';
      return;
    }
  }
}

// A decimal with nothing after it. The values that strtoll gives on overflow
// are refused as out of range.
bool ParseDecimal(const char* text, long long* out) {
  char* end = nullptr;
  errno = 0;
  *out = strtoll(text, &end, 10);
  return *end == '\0';
}

int ParseGen(const char* text, int trailingRc, Failure* f) {
  long long v = 0;
  if (!ParseDecimal(text, &v)) {
    *f = {E_INVAL, trailingRc};
    return -1;
  }
  if (v < 0 || v >= 0x7FFFFFFF) {
    *f = {E_RANGE, trailingRc + 1};
    return -1;
  }
  return static_cast<int>(v);
}

// "yes"/"true"/"on" -> 1, "no"/"false"/"off" -> 0, other text -> -1.
int ParseOnOff(const char* v) {
  if (!strcasecmp(v, "yes") || !strcasecmp(v, "true") || !strcasecmp(v, "on")) return 1;
  if (!strcasecmp(v, "no") || !strcasecmp(v, "false") || !strcasecmp(v, "off")) return 0;
  return -1;
}

void Report(const char* path, const Failure& f) {
  fprintf(stderr, "[E] Unable to load keys from %s, err %d rc %d.\n", path, f.err, f.rc);
}

// Reads one key block into *key; rc is the file's rc for this key.
bool ReadBlock(FILE* file, SecBlock kind, std::string* key, int rc, Failure* f) {
  int err = SecReadKeyBlock(file, kind, key);
  if (err != 0) *f = {err, rc};
  return err == 0;
}

// Applies one key=value line. Returns false with *f set on an error.
bool ApplyLine(FILE* file, const char* key, const char* value, ClusterInfoList* list,
               ClusterInfo** cur, AuthKeysSettings* settings, Failure* f) {
  if (!strcmp(key, "clusterName")) {
    if (*cur != nullptr) list->insert(*cur);
    *cur = new (std::nothrow) ClusterInfo;
    if (*cur == nullptr) {
      *f = {E_NOMEM, 6};
      return false;
    }
    (*cur)->clusterName = value;
    return true;
  }
  if (!strcmp(key, "nistCompliance")) {
    if (!strcasecmp(value, "off")) {
      settings->nistCompliance = 0;
    } else if (!strcasecmp(value, "SP800-131A")) {
      settings->nistCompliance = 1;
    } else {
      *f = {E_INVAL, 22};
      return false;
    }
    return true;
  }
  if (!strcmp(key, "fips1402mode")) {
    int m = ParseOnOff(value);
    if (m < 0) {
      *f = {E_INVAL, 23};
      return false;
    }
    settings->fips1402Mode = m;
    return true;
  }

  static const char* const kEntryKeys[] = {"clusterID",          "cipherList",
                                           "newKeyGenNumber",    "newKeyDigest",
                                           "newPublicKey",       "committedKeyGenNumber",
                                           "committedKeyDigest", "committedPublicKey",
                                           "newCertificate",     "committedCertificate"};
  bool entryKey = false;
  for (const char* k : kEntryKeys) entryKey = entryKey || !strcmp(key, k);
  if (!entryKey) return true;  // unknown keys are left for newer readers
  if (*cur == nullptr) {
    *f = {E_INVAL, 5};
    return false;
  }
  ClusterInfo* ci = *cur;

  if (!strcmp(key, "clusterID")) {
    long long v = 0;
    if (!ParseDecimal(value, &v)) {
      *f = {E_INVAL, 8};
      return false;
    }
    if (v == LLONG_MAX) {
      *f = {E_RANGE, 9};
      return false;
    }
    ci->clusterID = static_cast<uint64_t>(v);
  } else if (!strcmp(key, "cipherList")) {
    if (!SecCipherListSupported(value)) {
      fprintf(stderr, "[E] Unsupported cipherList in authorized_keys file: %s\n", value);
      *f = {E_INVAL, 10};
      return false;
    }
    ci->cipherList = value;
    ci->hasCipherList = true;
  } else if (!strcmp(key, "newKeyGenNumber")) {
    int g = ParseGen(value, 12, f);
    if (g < 0) return false;
    ci->newKeyGenNumber = g;
  } else if (!strcmp(key, "committedKeyGenNumber")) {
    int g = ParseGen(value, 16, f);
    if (g < 0) return false;
    ci->committedKeyGenNumber = g;
  } else if (!strcmp(key, "newKeyDigest")) {
    return ReadBlock(file, SecBlock::kKeyDigest, &ci->newKey, 14, f);
  } else if (!strcmp(key, "newPublicKey")) {
    return ReadBlock(file, SecBlock::kPublicKey, &ci->newKey, 15, f);
  } else if (!strcmp(key, "committedKeyDigest")) {
    return ReadBlock(file, SecBlock::kKeyDigest, &ci->committedKey, 18, f);
  } else if (!strcmp(key, "committedPublicKey")) {
    return ReadBlock(file, SecBlock::kPublicKey, &ci->committedKey, 19, f);
  } else if (!strcmp(key, "newCertificate")) {
    return ReadBlock(file, SecBlock::kCertificate, &ci->newKey, 20, f);
  } else if (!strcmp(key, "committedCertificate")) {
    return ReadBlock(file, SecBlock::kCertificate, &ci->committedKey, 21, f);
  }
  return true;
}

// Walks the lines of the file; fipsOnly looks at "fips1402mode" alone and
// skips everything else, key blocks included.
int ReadFile(const char* path, ClusterInfoList* list, AuthKeysSettings* settings, bool fipsOnly,
             int* rcOut) {
  Failure f{0, 0};
  // Only a regular file: a FIFO planted here must not hang the command.
  int fd = -1;
  int openErr = PlatOpenRegular(path, O_RDONLY, &fd);
  FILE* file = openErr == 0 ? fdopen(fd, "re") : nullptr;
  if (file == nullptr) {
    if (openErr == 0) {
      openErr = errno != 0 ? errno : E_IO;
      PlatClose(fd);
    }
    f = {openErr, 1};
    Report(path, f);
    if (rcOut) *rcOut = f.rc;
    return f.err;
  }
  ClusterInfo* cur = nullptr;
  char line[kLineBuf];
  while (f.err == 0 && fgets(line, sizeof line, file) != nullptr) {
    CutAtWhiteSpace(line);
    if (line[0] == '\0') continue;
    char* eq = strchr(line, '=');
    // The FIPS pass does not decode key blocks, so it steps over their lines.
    if (eq == nullptr && fipsOnly) continue;
    if (eq == nullptr) {
      f = {E_INVAL, 4};
      break;
    }
    *eq = '\0';
    const char* value = eq + 1;
    if (fipsOnly) {
      if (strcmp(line, "fips1402mode") != 0) continue;
      int m = ParseOnOff(value);
      if (m < 0) {
        f = {E_INVAL, 23};
      } else {
        settings->fips1402Mode = m;
      }
      continue;
    }
    ApplyLine(file, line, value, list, &cur, settings, &f);
  }
  if (f.err == 0 && ferror(file)) f = {E_IO, 2};
  fclose(file);
  if (f.err != 0) {
    delete cur;
    Report(path, f);
    if (rcOut) *rcOut = f.rc;
    return f.err;
  }
  if (cur != nullptr) list->insert(cur);
  if (rcOut) *rcOut = 0;
  return 0;
}

}  // namespace

int ReadAuthorizedKeys(const char* path, ClusterInfoList* list, AuthKeysSettings* settings,
                       int* rc) {
  return ReadFile(path, list, settings, false, rc);
}

int ReadFipsMode(const char* path, int* mode) {
  AuthKeysSettings s;
  ClusterInfoList unused;
  int rc = ReadFile(path, &unused, &s, true, nullptr);
  if (rc == 0 && s.fips1402Mode >= 0) *mode = s.fips1402Mode;
  return rc;
}
