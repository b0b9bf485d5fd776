// Key blocks of the authorized-keys file, read from the lines that follow a
// key's line:
//   ...PublicKey=       then a PEM "PUBLIC KEY" block (BEGIN line to END line)
//   ...Certificate=     then a PEM "CERTIFICATE" block; its public key is taken
//   ...KeyDigest=       then one line of 64 hex digits (':' between bytes allowed):
//                       the SHA-256 of the key's DER SubjectPublicKeyInfo
// Every form yields the key's identity (SecKeyId), so they compare alike.
#ifndef TRANSPORT_SECKEYFILE_H
#define TRANSPORT_SECKEYFILE_H

#include <cstdio>
#include <string>

enum class SecBlock { kPublicKey, kKeyDigest, kCertificate };

// Reads the block at the current position of f and stores the key identity
// (32 bytes) in *keyId. Errors: E_INVAL for a missing, malformed or oversized
// block (or a key the library cannot decode), ELIBACC without the library.
int SecReadKeyBlock(FILE* f, SecBlock kind, std::string* keyId);

// Standard base64 (no line breaks) into bytes; false on a bad character or length.
bool SecBase64Decode(const std::string& text, std::string* out);

#endif  // TRANSPORT_SECKEYFILE_H
