// Keys and self-signed certificates made at test run time with the openssl
// command-line tool (private keys are never committed).
#ifndef TESTS_SUPPORT_SECKEYS_H
#define TESTS_SUPPORT_SECKEYS_H

#include <string>

struct TestKey {
  std::string keyPath;    // PEM private key
  std::string certPath;   // PEM self-signed certificate
  std::string bothPath;   // key and certificate in one file
  std::string pubPem;     // "-----BEGIN PUBLIC KEY-----" block, with newlines
  std::string certPem;    // "-----BEGIN CERTIFICATE-----" block, with newlines
  std::string digestHex;  // SHA-256 of the DER public key, as the tool computes it
};

// Why keys cannot be made here (no tool, no TLS library), or empty.
std::string SecTestSkipReason();
// Makes an EC P-256 key and certificate named name in dir.
bool MakeTestKey(const std::string& dir, const std::string& name, TestKey* out);

// Key number i (0 to 3), made on first use and kept for the whole process; null
// when it cannot be made.
const TestKey* SharedTestKey(int i);

#endif  // TESTS_SUPPORT_SECKEYS_H
