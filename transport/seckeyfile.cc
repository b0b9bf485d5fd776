#include "transport/seckeyfile.h"

#include <errno.h>
#include <string.h>

#include "transport/sectransport.h"
#include "transport/tlsapi.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace {

// The same small line buffer as the file's own lines; longer lines arrive in
// pieces, which base64 text does not mind.
constexpr int kLineBuf = 128;
// A PEM block larger than this is not a key or certificate of ours.
constexpr size_t kMaxBlockText = 64 * 1024;

// The next piece without trailing white space; false at end of file.
bool NextPiece(FILE* f, std::string* line) {
  char buf[kLineBuf];
  if (fgets(buf, sizeof buf, f) == nullptr) return false;
  size_t n = strlen(buf);
  while (n > 0 &&
         (buf[n - 1] == '\n' || buf[n - 1] == '\r' || buf[n - 1] == ' ' || buf[n - 1] == '\t')) {
    --n;
  }
  line->assign(buf, n);
  return true;
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The base64 text between "-----BEGIN label-----" and "-----END label-----".
int ReadPem(FILE* f, const char* label, std::string* der) {
  std::string begin = std::string("-----BEGIN ") + label + "-----";
  std::string end = std::string("-----END ") + label + "-----";
  std::string line;
  if (!NextPiece(f, &line) || line != begin) {
    trace(1, "Auth: expected '%s' in the authorized-keys file", begin.c_str());
    return E_INVAL;
  }
  std::string text;
  for (;;) {
    if (!NextPiece(f, &line)) {
      trace(1, "Auth: '%s' missing in the authorized-keys file", end.c_str());
      return E_INVAL;
    }
    if (line == end) break;
    text += line;
    if (text.size() > kMaxBlockText) return E_INVAL;
  }
  if (!SecBase64Decode(text, der) || der->empty()) {
    trace(1, "Auth: bad base64 text in a '%s' block", label);
    return E_INVAL;
  }
  return 0;
}

int ReadDigest(FILE* f, std::string* id) {
  std::string line;
  if (!NextPiece(f, &line)) return E_INVAL;
  std::string hex;
  for (char c : line) {
    if (c != ':') hex.push_back(c);
  }
  id->clear();
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    int hi = HexValue(hex[i]);
    int lo = HexValue(hex[i + 1]);
    if (hi < 0 || lo < 0) break;
    id->push_back(static_cast<char>(hi * 16 + lo));
  }
  if (hex.size() != 64 || id->size() != 32) {
    trace(1, "Auth: a key digest must be 64 hex digits");
    id->clear();
    return E_INVAL;
  }
  return 0;
}

// Re-encodes the key or the certificate's key as DER SubjectPublicKeyInfo, so
// that the identity does not depend on how the file spelled it.
int CanonicalKey(const std::string& der, bool isCert, std::string* spki) {
  const tls::Api* a = nullptr;
  int rc = tls::Load(&a);
  if (rc != 0) return rc;
  a->ERR_clear_error();
  const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
  tls::X509* cert = nullptr;
  tls::EVP_PKEY* owned = nullptr;
  tls::EVP_PKEY* key = nullptr;
  if (isCert) {
    cert = a->d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    key = cert ? a->X509_get0_pubkey(cert) : nullptr;
  } else {
    owned = key = a->d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size()));
  }
  rc = E_INVAL;
  int len = key ? a->i2d_PUBKEY(key, nullptr) : -1;
  if (len > 0) {
    spki->resize(static_cast<size_t>(len));
    unsigned char* q = reinterpret_cast<unsigned char*>(&(*spki)[0]);
    if (a->i2d_PUBKEY(key, &q) == len) rc = 0;
  }
  if (owned) a->EVP_PKEY_free(owned);
  if (cert) a->X509_free(cert);
  if (rc != 0) tls::DrainErrors(1, "decode key block");
  return rc;
}

}  // namespace

bool SecBase64Decode(const std::string& text, std::string* out) {
  out->clear();
  if (text.size() % 4 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 4) {
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      char c = text[i + k];
      if (c == '=' && i + 4 == text.size() && k >= 2) {
        v[k] = 0;
        ++pad;
      } else if (pad > 0 || (v[k] = Base64Value(c)) < 0) {
        return false;
      }
    }
    unsigned int n =
        (unsigned(v[0]) << 18) | (unsigned(v[1]) << 12) | (unsigned(v[2]) << 6) | unsigned(v[3]);
    out->push_back(static_cast<char>(n >> 16));
    if (pad < 2) out->push_back(static_cast<char>((n >> 8) & 0xff));
    if (pad < 1) out->push_back(static_cast<char>(n & 0xff));
  }
  return true;
}

int SecReadKeyBlock(FILE* f, SecBlock kind, std::string* keyId) {
  keyId->clear();
  if (kind == SecBlock::kKeyDigest) return ReadDigest(f, keyId);
  bool isCert = kind == SecBlock::kCertificate;
  std::string der;
  int rc = ReadPem(f, isCert ? "CERTIFICATE" : "PUBLIC KEY", &der);
  std::string spki;
  if (rc == 0) rc = CanonicalKey(der, isCert, &spki);
  if (rc == 0) rc = SecKeyId(spki, keyId);
  return rc;
}
