// The local paxos state file (header + PaxosFileData body), the client's copy
// of the committed state in it, and the names of committed repository files.
#ifndef ZEL_ZELPAXOSFILE_H
#define ZEL_ZELPAXOSFILE_H

#include <string>

#include "zel/paxosdata.h"

// Reads zelPaxosLFDClientPath. On success *seq and *committed get the file's
// summary; on failure both are untouched. 214 for data that does not decode,
// does not validate or belongs to another cluster.
int loadPFDFromFile(int* seq, CommittedState* committed);
// Writes seq and committed to a temporary file, syncs it and renames it onto
// zelPaxosLFDClientPath; a failed store leaves the previous file in place.
// seq must be 0 or more.
int storePFDToFile(int seq, const CommittedState& committed);

// <committed dir>/name.fileId.version.<crc hex>.<uid hex>
std::string committedFilePath(const std::string& name, int fileId, int version, unsigned int crc,
                              const UpdateId& uid);
// From a file update (any other kind is an assertion).
std::string committedFilePath(const ProposedUpdate& inp);
// From the state's entry for fileId; "" when the state has none.
std::string committedFilePath(const std::string& name, int fileId, const CommittedState& committed);

#endif  // ZEL_ZELPAXOSFILE_H
