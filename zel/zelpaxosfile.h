// The local paxos state file (header + PaxosFileData body), the client's copy
// of the committed state in it, and the names of committed repository files.
#ifndef ZEL_ZELPAXOSFILE_H
#define ZEL_ZELPAXOSFILE_H

#include <string>

#include "zel/paxosdata.h"

// Reads a whole state file into *pfd; hdr (optional) gets its decoded header.
// *clusterId is the cluster id known so far (0: unknown): a file of another
// cluster fails with 214, and an unknown id is taken from the file's header
// (even when the rest fails). 0, the open or read error, 12, or 214 for data
// that does not decode, does not validate or belongs to another cluster.
int loadPaxosFile(const std::string& path, PaxosFileData* pfd, PaxosHeader* hdr,
                  unsigned long long* clusterId);
// Writes header (cluster id, last writer) and body (format 1) in place with one
// write, then syncs.
int storePaxosFile(const std::string& path, const PaxosFileData& pfd, unsigned long long clusterId,
                   int writerId);

// Reads zelPaxosLFDClientPath with loadPaxosFile. On success *seq and
// *committed get the file's summary; on failure both are untouched.
int loadPFDFromFile(int* seq, CommittedState* committed, unsigned long long* clusterId);
// Writes seq and committed (with clusterId, as this node) to a temporary file,
// syncs it and renames it onto zelPaxosLFDClientPath; a failed store leaves the
// previous file in place. seq must be 0 or more.
int storePFDToFile(int seq, const CommittedState& committed, unsigned long long clusterId);

// <committed dir>/name.fileId.version.<crc hex>.<uid hex>
std::string committedFilePath(const std::string& name, int fileId, int version, unsigned int crc,
                              const UpdateId& uid);
// From a file update (any other kind is an assertion).
std::string committedFilePath(const ProposedUpdate& inp);
// From the state's entry for fileId; "" when the state has none.
std::string committedFilePath(const std::string& name, int fileId, const CommittedState& committed);

#endif  // ZEL_ZELPAXOSFILE_H
