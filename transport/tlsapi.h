// The few entry points of the system TLS libraries (libssl.so.3, libcrypto.so.3),
// bound at run time with dlopen so that the tool starts and works with
// authentication off on a machine without them. Only opaque types are declared.
#ifndef TRANSPORT_TLSAPI_H
#define TRANSPORT_TLSAPI_H

#include <cstddef>
#include <cstdint>

struct ssl_st;
struct ssl_ctx_st;
struct ssl_method_st;
struct bio_st;
struct bio_method_st;
struct x509_st;
struct x509_store_ctx_st;
struct evp_pkey_st;
struct evp_md_st;
struct engine_st;

namespace tls {

using SSL = ssl_st;
using SSL_CTX = ssl_ctx_st;
using SSL_METHOD = ssl_method_st;
using BIO = bio_st;
using BIO_METHOD = bio_method_st;
using X509 = x509_st;
using X509_STORE_CTX = x509_store_ctx_st;
using EVP_PKEY = evp_pkey_st;
using EVP_MD = evp_md_st;

constexpr int kErrorNone = 0;
constexpr int kErrorSsl = 1;
constexpr int kErrorWantRead = 2;
constexpr int kErrorWantWrite = 3;
constexpr int kErrorSyscall = 5;
constexpr int kErrorZeroReturn = 6;
constexpr int kVerifyPeer = 0x01;
constexpr int kVerifyFailIfNoPeerCert = 0x02;
constexpr int kFiletypePem = 1;
constexpr int kCtrlSetReadAhead = 41;
constexpr int kCtrlSetSessCacheMode = 44;
constexpr int kCtrlSetMinProtoVersion = 123;
constexpr int kCtrlSetMaxProtoVersion = 124;
constexpr long kTls13Version = 0x0304;
constexpr uint64_t kOpNoTicket = uint64_t(1) << 14;
constexpr uint64_t kOpEnableMiddleboxCompat = uint64_t(1) << 20;
constexpr int kBioTypeSourceSink = 0x0400;
constexpr int kBioCtrlFlush = 11;
constexpr int kBioFlagsRead = 0x01;
constexpr int kBioFlagsWrite = 0x02;
constexpr int kBioFlagsShouldRetry = 0x08;
constexpr int kBioFlagsRetryMask = 0x0f;

using VerifyCb = int (*)(int, X509_STORE_CTX*);

struct Api {
  // libssl
  const SSL_METHOD* (*TLS_method)();
  SSL_CTX* (*SSL_CTX_new)(const SSL_METHOD*);
  void (*SSL_CTX_free)(SSL_CTX*);
  int (*SSL_CTX_up_ref)(SSL_CTX*);
  long (*SSL_CTX_ctrl)(SSL_CTX*, int, long, void*);
  uint64_t (*SSL_CTX_set_options)(SSL_CTX*, uint64_t);
  uint64_t (*SSL_CTX_clear_options)(SSL_CTX*, uint64_t);
  int (*SSL_CTX_set_num_tickets)(SSL_CTX*, size_t);
  void (*SSL_CTX_set_verify)(SSL_CTX*, int, VerifyCb);
  int (*SSL_CTX_use_PrivateKey_file)(SSL_CTX*, const char*, int);
  int (*SSL_CTX_use_certificate_chain_file)(SSL_CTX*, const char*);
  int (*SSL_CTX_check_private_key)(const SSL_CTX*);
  SSL* (*SSL_new)(SSL_CTX*);
  void (*SSL_free)(SSL*);
  void (*SSL_set_bio)(SSL*, BIO*, BIO*);
  int (*SSL_connect)(SSL*);
  int (*SSL_accept)(SSL*);
  int (*SSL_shutdown)(SSL*);
  int (*SSL_get_error)(const SSL*, int);
  X509* (*SSL_get1_peer_certificate)(const SSL*);
  // libcrypto
  int (*BIO_get_new_index)();
  BIO_METHOD* (*BIO_meth_new)(int, const char*);
  int (*BIO_meth_set_write)(BIO_METHOD*, int (*)(BIO*, const char*, int));
  int (*BIO_meth_set_read)(BIO_METHOD*, int (*)(BIO*, char*, int));
  int (*BIO_meth_set_ctrl)(BIO_METHOD*, long (*)(BIO*, int, long, void*));
  int (*BIO_meth_set_create)(BIO_METHOD*, int (*)(BIO*));
  BIO* (*BIO_new)(const BIO_METHOD*);
  void (*BIO_set_data)(BIO*, void*);
  void* (*BIO_get_data)(BIO*);
  void (*BIO_set_init)(BIO*, int);
  void (*BIO_set_flags)(BIO*, int);
  void (*BIO_clear_flags)(BIO*, int);
  int (*BIO_free)(BIO*);
  void (*X509_free)(X509*);
  X509* (*d2i_X509)(X509**, const unsigned char**, long);
  EVP_PKEY* (*X509_get0_pubkey)(const X509*);
  int (*i2d_PUBKEY)(const EVP_PKEY*, unsigned char**);
  EVP_PKEY* (*d2i_PUBKEY)(EVP_PKEY**, const unsigned char**, long);
  void (*EVP_PKEY_free)(EVP_PKEY*);
  const EVP_MD* (*EVP_sha256)();
  int (*EVP_Digest)(const void*, size_t, unsigned char*, unsigned int*, const EVP_MD*, engine_st*);
  void (*ERR_clear_error)();
  unsigned long (*ERR_get_error)();
  void (*ERR_error_string_n)(unsigned long, char*, size_t);
};

// Binds the libraries once per process. Returns 0 and sets *api, or ELIBACC
// with the loader's reason traced at level 1. Safe to call from any thread.
int Load(const Api** api);
// The bound table, or null when Load has not succeeded.
const Api* Get();
// Test hook: the library names the next Load tries (null restores the system
// names). A failed Load is retried by the next call; a bound table is kept
// unless names are set, which forces the next Load to open them afresh.
void SetLibraryNames(const char* sslName, const char* cryptoName);
// Traces (at level) and clears the calling thread's queued library errors.
void DrainErrors(int level, const char* what);

}  // namespace tls

#endif  // TRANSPORT_TLSAPI_H
