// The value and file subcommands (vlist, vget, show, vput, vdel, flist, fget,
// fput, fdel) and refresh.
#include <stdio.h>

#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"

int VlistCommand(const ZelSettings&, const ZelArgs&) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosValueGet(&seq, &committed);
  if (rc != 0) {
    fprintf(stderr, "list failed: err %d\n", rc);
    return rc;
  }
  puts(
      "  version  name                 value\n"
      "---------  -------------------- --------------------------------------------");
  for (const auto& v : committed.valueList) {
    printf("%9d  %-20s \"%s\"\n", v.second.version, v.first.c_str(), v.second.value.c_str());
  }
  return 0;
}

// The condition version is not used: the fetch is unconditional.
int VgetCommand(const ZelSettings&, const ZelArgs& args) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosValueGet(&seq, &committed);
  if (rc != 0) {
    fprintf(stderr, "vget failed: err %d\n", rc);
    return rc;
  }
  auto it = committed.valueList.find(args[0]);
  if (it == committed.valueList.end()) {
    fprintf(stderr, "\"%s\" is undefined\n", args[0].c_str());
    return E_ZEL_NOT_FOUND;
  }
  printf("vget:%d:%s\n", it->second.version, it->second.value.c_str());
  return 0;
}

int ShowCommand(const ZelSettings&, const ZelArgs&) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosValueGet(&seq, &committed);
  if (rc != 0) {
    fprintf(stderr, "get failed: err %d\n", rc);
    return rc;
  }
  printf("seq %d\n", seq);
  printCommittedState(committed);
  return 0;
}

int VputCommand(const ZelSettings& s, const ZelArgs& args) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosValuePut(args[0], args[1], &seq, &committed, s.condVersion, s.storeVersion);
  if (rc != 0) fprintf(stderr, "vput failed: err %d\n", rc);
  return rc;
}

int VdelCommand(const ZelSettings& s, const ZelArgs& args) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosValueDel(args[0], &seq, &committed, s.condVersion);
  if (rc != 0) fprintf(stderr, "vdel failed: err %d\n", rc);
  return rc;
}

// Versions come from the committed state's entry for each listed id (0 if none).
int FlistCommand(const ZelSettings&, const ZelArgs&) {
  int seq = 0;
  CommittedState committed;
  FileIdMap files;
  int rc = PaxosFileList(&seq, &committed, &files);
  if (rc != 0) {
    fprintf(stderr, "list files failed: err %d\n", rc);
    return rc;
  }
  puts("  version  name\n---------  --------------------");
  for (const auto& f : files) {
    auto v = committed.fileList.find(f.first);
    printf("%9d  %-20s\n", v == committed.fileList.end() ? 0 : v->second.version,
           f.second.name.c_str());
  }
  return 0;
}

int FgetCommand(const ZelSettings& s, const ZelArgs& args) {
  int seq = 0, fileId = 0;
  CommittedState committed;
  int rc = PaxosFileGet(args[0], args[1], &seq, &committed, &fileId, s.condVersion);
  if (rc != 0) {
    fprintf(stderr, "get file failed: err %d\n", rc);
    return rc;
  }
  auto v = committed.fileList.find(fileId);
  // Standard output carried the file itself.
  fprintf(zelStdoutIsData ? stderr : stdout, "fget:%d\n",
          v == committed.fileList.end() ? 0 : v->second.version);
  return 0;
}

int FputCommand(const ZelSettings& s, const ZelArgs& args) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosFilePut(args[0], args[1], &seq, &committed, s.condVersion, s.storeVersion);
  if (rc != 0) fprintf(stderr, "fput failed: err %d\n", rc);
  return rc;
}

int FdelCommand(const ZelSettings& s, const ZelArgs& args) {
  int seq = 0;
  CommittedState committed;
  int rc = PaxosFileDel(args[0], &seq, &committed, s.condVersion);
  if (rc != 0) fprintf(stderr, "fdel failed: err %d\n", rc);
  return rc;
}

int RefreshCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  if (rc != 0) return rc;
  if (!s.nodeArgs.empty()) {
    Nodes nodes;
    if (parseNodeList(s.nodeArgs, &nodes, true) != 0) return E_INVAL;
    rc = SetNodeList(nodes, false);
    if (rc != 0) return rc;
  }
  PaxosInit();
  return PaxosDiscover();
}
