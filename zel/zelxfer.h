// Checksummed file transfer over an open connection: 1 MiB "fdata" messages
// followed by one "fcrc" carrying the cksum CRC in big-endian order.
#ifndef ZEL_ZELXFER_H
#define ZEL_ZELXFER_H

#include <string>

#include "zel/kxcomm.h"

constexpr int kXferChunkBytes = 1048576;
// The largest file the requests can announce: sizes travel as VarUInt with bias
// -1 and decode up to 2^31 - 1.
constexpr long long kMaxXferFileBytes = 2147483646LL;

// Called after each chunk a transfer moves (bytes so far, bytes in all), when set.
// Only kxzel's front end sets it, to show progress; a server never does.
using XferProgressFn = void (*)(long long done, long long total);
void SetXferProgress(XferProgressFn fn);

// Sends the file of fSize bytes. *localErr (optional) tells whether a failure
// lay on this machine. 810 when the file cannot be opened, or when it is found
// to differ from the fSize bytes announced (then no "fcrc" is sent and the
// connection is dropped, so the peer cannot take a partial file as complete).
int sendFile(Connection* conn, const std::string& path, long long fSize, bool* localErr = nullptr);

// Receives fSize bytes into target through a temporary file (an empty target
// writes to standard output and closes it). durable: keep an existing target and
// sync; otherwise replace it without sync. *crc gets the computed CRC. A
// transfer whose length differs from fSize fails with 810.
int receiveFile(Connection* conn, std::string target, long long fSize, bool isPrivate,
                unsigned int* crc, bool* localErr, bool durable);
// As receiveFile with CRC naming (the last ".0." of *target becomes ".<crc hex>.",
// and *target is updated), skip-if-exists and sync.
int receiveFileCRCRename(Connection* conn, std::string* target, long long fSize, bool isPrivate,
                         unsigned int* crc, bool* localErr);
int receiveFileX(Connection* conn, std::string* target, long long fSize, bool isPrivate,
                 unsigned int* crc, bool* localErr, bool crcNaming, bool skipIfExists, bool doSync);

#endif  // ZEL_ZELXFER_H
