// chdisks: replaces the tiebreaker disks of a running repository. While the
// change is made, "zel.disks" lists the leaving disks (marked old) beside the
// added ones, which is where a repeated chdisks starts from.
#include <stdio.h>

#include <set>
#include <sstream>

#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zeladmin.h"
#include "zel/zelcmd.h"

int ChDisksCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  if (rc != 0) return rc;
  int seq = 0;
  CommittedState committed;
  DiskMap curDisks;
  rc = getDiskList(&seq, &committed, &curDisks);
  if (rc != 0) return rc;
  DiskMap newDisks;
  rc = parseDiskList(s.diskArgs, s.diskDir, &newDisks);
  if (rc != 0) return rc;

  std::set<std::string> curLabels, newLabels;
  for (const auto& entry : curDisks) curLabels.insert(entry.second.label);
  for (const auto& entry : newDisks) newLabels.insert(entry.second.label);
  // Fresh slots follow the largest current one, never reusing a freed slot.
  int nextSlot = curDisks.empty() ? 1 : curDisks.rbegin()->first + 1;
  DiskMap addedDisks;
  for (const auto& entry : newDisks) {
    if (!curLabels.count(entry.second.label)) addedDisks[nextSlot++] = entry.second;
  }
  trace(4, "curDisks: %s", DiskMapToString(curDisks).c_str());
  trace(4, "newDisks: %s", DiskMapToString(newDisks).c_str());
  trace(4, "addedDisks: %s", DiskMapToString(addedDisks).c_str());

  DiskMap combined = curDisks;
  for (const auto& entry : addedDisks) combined[entry.first] = entry.second;
  int nOld = 0;
  for (auto& entry : combined) {
    if (!newLabels.count(entry.second.label)) {
      entry.second.old = 1;
      nOld++;
    }
  }

  if (!addedDisks.empty()) {
    puts("zel shared disks to be initialized:");
    for (const auto& [slot, d] : addedDisks) printf("%d %s\n", slot, d.label.c_str());
    fflush(stdout);
    Dblock block;
    rc = InitSharedDisks(GetNodeList(), addedDisks, block, kMaxZelNodes);
    if (rc != 0) {
      fprintf(stderr, "disk initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  if (combined != curDisks) {
    rc = commitDiskCfg(combined);
    if (rc != 0) {
      fprintf(stderr, "disk list commit failed (err %d)\n", rc);
      return rc;
    }
  }

  DiskList cfgDiskList;
  DiskMap remaining;
  for (const auto& entry : combined) {
    if (!newLabels.count(entry.second.label)) continue;
    cfgDiskList.push_back(entry.first);
    remaining.insert(entry);
  }
  std::ostringstream text;
  text << cfgDiskList;
  trace(4, "cfgDiskList %s\n", text.str().c_str());
  rc = PaxosSetConfig(nullptr, &cfgDiskList, -1, -1, &seq, &committed);
  if (rc != 0) {
    fprintf(stderr, "config update failed: err %d\n", rc);
    return rc;
  }
  if (nOld > 0) {
    rc = commitDiskCfg(remaining);
    if (rc != 0) {
      fprintf(stderr, "disk list commit failed (err %d)\n", rc);
      return rc;
    }
  }
  trace(4, "new config: %s", committed.config.toString().c_str());
  return 0;
}
