// Encoding primitives, the checksum, the paxos record header, and diagnostics
// (leveled trace and assertions).
//
// Encoding convention: Dump* write at p and return the pointer past what they
// wrote; Load* read from p, never at or past end, and return the pointer past
// what they consumed or null. Every Load* returns null at once when given null,
// so a record's load can chain them and test once.
#ifndef ZEL_PAXOSUTILS_H
#define ZEL_PAXOSUTILS_H

#include <cstdint>
#include <string>

#include "zel/zelglobals.h"

// ---- Diagnostics ----

// The thresholds are declared in zel/zelglobals.h.

void trace(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Reports "file:line: assertion 'cond' failed" (plus the detail when fmt is given)
// at level 0 and aborts. file is a source path; its extension is dropped.
[[noreturn]] void assert_failed(const char* file, int line, const char* cond,
                                const char* fmt = nullptr, ...)
    __attribute__((format(printf, 4, 5)));
std::string assert_msg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Reads ZEL_DEBUG and ZEL_TRACE (an unset, empty or malformed one leaves its
// setting at 0; the front end rejects malformed ones before this runs).
void InitPaxosUtils();

// One line that says what caused the latest failure (a path, a host, a file
// line), shown by the front end after the command's own message. Empty when
// nothing was recorded.
void SetErrorCause(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
const std::string& ErrorCause();
void ClearErrorCause();

// Whole-text decimal conversion: an optional "-", then digits only, the value
// within [min, max]. False for anything else (empty, blanks, "+", overflow).
bool ParseDecimal(const char* text, long long min, long long max, long long* out);
// The same for an unsigned 64-bit value (no sign allowed).
bool ParseDecimalU64(const char* text, unsigned long long* out);

#define ZASSERT(cond) ((cond) ? (void)0 : assert_failed(__FILE__, __LINE__, #cond))
// With the condition text given explicitly, as the messages must name it.
#define ZASSERT_T(cond, text) ((cond) ? (void)0 : assert_failed(__FILE__, __LINE__, text))
#define ZASSERT_M(cond, text, ...) \
  ((cond) ? (void)0 : assert_failed(__FILE__, __LINE__, text, __VA_ARGS__))

// ---- Encoding primitives ----

constexpr int MaxSizeVarUInt = 8;

// Bytes of the prefix-length code of v - bias (1 to 8). v - bias must be below 2^56.
int SizeVarUInt(long long v, int bias);
char* DumpVarUInt(char* p, long long v, int bias);
// Decodes quantities up to 2^31 - 1 and stores quantity + bias. On a missing or
// cut-short input *out = bias; on a too-large quantity *out is untouched.
const char* LoadVarUInt(const char* p, const char* end, int* out, int bias);
// The same for unsigned fields, accepting quantities up to 2^32 - 1.
const char* LoadVarUIntU(const char* p, const char* end, unsigned int* out, int bias);

char* DumpUInt32(char* p, unsigned int v);
const char* LoadUInt32(const char* p, const char* end, unsigned int* out);
// A 64-bit value as two UInt32, high half first.
char* DumpUInt64(char* p, unsigned long long v);
const char* LoadUInt64(const char* p, const char* end, unsigned long long* out);

// The characters and one zero byte.
char* DumpString(char* p, const std::string& s);
const char* LoadString(const char* p, const char* end, std::string* out);

// ---- Checksum: the CRC of the POSIX cksum utility ----

// Folds len more bytes into the running value (0 to start).
unsigned int partialcrc(const unsigned char* p, unsigned long len, unsigned int crc);
// Feeds the total length and complements: the cksum value.
unsigned int finalcrc(unsigned int crc, unsigned long totalLen);

// ---- Record header of the paxos state file ----

constexpr unsigned int kPaxosMagic = 0x1FABC4AD;
// The smallest encoded header: fixed fields plus two one-byte VarUInts.
constexpr int kPaxosHeaderMinSize = 22;

// Layout: magic, crc, len, cid (high, low) as UInt32, then fmtVersion (bias 0)
// and lastWriterId (bias -1) as VarUInt. crc is the raw partialcrc of bytes
// [8, len) of the record; len counts the whole record, header included.
struct PaxosHeader {
  unsigned int magic = kPaxosMagic;
  unsigned int crc = 0;
  unsigned int len = 0;
  unsigned int fmtVersion = 0;
  unsigned long long cid = 0;
  int lastWriterId = -1;

  void initHdr();
  int getSize() const;
  // Writes crc and len as they stand; setCRC fills the crc afterwards.
  char* dump(char* p) const;
  // Stores the checksum of buf[8, len) into bytes 4..7 of buf.
  void setCRC(char* buf, int len) const;
  // Decodes the fields without checking magic or crc.
  const char* load(const char* p, const char* end);
  // Checks length, magic and crc of a whole encoded record: 0 or E_BAD_PAXOS_DATA.
  int validate(const char* p, const char* end) const;
  // "hdr: magic ..., crc ..., len ..., fmtVersion ... cid ... lastWriterId ...\n"
  std::string toString() const;
};

#endif  // ZEL_PAXOSUTILS_H
