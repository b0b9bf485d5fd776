// Repository files on one node: committed copies named
// name.fileId.version.crcHex.uidHex in the committed directory (the current and
// the previous version of each file are kept, for clients pulling a version a
// state named), staging files that fputs receive into before their decision,
// and the durable map between file names and file ids (which the committed
// state does not hold).
#ifndef SERVER_FILESTORE_H
#define SERVER_FILESTORE_H

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "zel/paxosdata.h"

namespace zeld {

// The committed name of one version (without directory).
std::string CommittedFileName(const std::string& name, int fileId, const FileVersion& fv);
// Parses a committed name back; false when it is not one.
bool ParseCommittedFileName(const std::string& file, std::string* name, int* fileId,
                            FileVersion* fv);

class FileStore {
 public:
  FileStore(const std::string& committedDir, const std::string& stagingDir,
            const std::string& mapPath);
  // Creates the directories, loads the id map, indexes the committed copies
  // (names missing from the map are taken from them). 214 for a map file that
  // does not decode.
  int open();

  // The id of name: the mapped one, else a new id above every id in the map
  // and in s, made durable before it is returned. "zel.nodes" is always 1.
  int idFor(const std::string& name, const CommittedState& s, int* id);
  // The mapped id, or -1.
  int lookup(const std::string& name) const;
  // The name mapped to id, or "".
  std::string nameOf(int id) const;
  // A decided file update names (name, id): the map follows it, dropping any
  // other id the name had and any other name the id had (made durable).
  int learn(const std::string& name, int id);
  // A new id above every id mapped here and every id of s (not reserved).
  int nextId(const CommittedState& s) const;
  FileIdMap idMap() const;

  // A new, empty staging file for the update uid, opened for writing.
  int createStaging(const UpdateId& uid, std::string* path, int* fd);
  // A fresh staging name for the update uid, for a receiver that creates the file.
  std::string stagingName(const UpdateId& uid);
  // Links the staging file of a decided file update to its committed name (the
  // link and its directory made durable), removes the staging name, and drops
  // versions older than the previous one.
  int commit(const std::string& stagingPath, const ProposedUpdate& u);
  // After a deletion: only the deleted version stays.
  void forget(int fileId);
  // Start-up: links staging files whose update the state holds but whose copy is
  // missing (the crash window between decision and link), then removes every
  // other staging file (abandoned fputs).
  int reconcile(const CommittedState& s) { return reconcile(s, stagingFiles(), true); }
  // The same over the staging files named (as listed by stagingFiles); others
  // are left alone unless removeOthers.
  int reconcile(const CommittedState& s, const std::vector<std::string>& names, bool removeOthers);
  std::vector<std::string> stagingFiles() const;
  // The staging file among names that holds the content of u (its uid, and the
  // CRC u names), linked to its committed name: 0, or ENOENT when none does.
  int commitFromStaging(const std::vector<std::string>& names, const ProposedUpdate& u);

  // Opens the committed copy of (fileId, version, uid) for reading; ENOENT when
  // this node does not hold it.
  int openVersion(int fileId, int version, const UpdateId& uid, int* fd, long long* size,
                  unsigned int* crc) const;
  std::string committedPath(const std::string& name, int fileId, const FileVersion& fv) const;
  // Whether the committed copy of (fileId, fv) is here.
  bool holds(int fileId, const FileVersion& fv) const;
  // The path of the newest copy of fileId held here, or "".
  std::string latestPath(int fileId) const;
  const std::string& committedDir() const { return committedDir_; }

 private:
  struct Copy {
    std::string name;
    FileVersion fv;
  };
  int saveMapLocked();
  void pruneLocked(int fileId, size_t keep);

  std::string committedDir_, stagingDir_, mapPath_;
  mutable std::mutex mu_;
  FileIdMap map_;
  std::map<std::string, int> byName_;
  std::map<int, std::vector<Copy>> copies_;  // oldest first
  unsigned long long stagingCounter_ = 0;
};

}  // namespace zeld

#endif  // SERVER_FILESTORE_H
