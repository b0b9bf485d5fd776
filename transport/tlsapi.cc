#include "transport/tlsapi.h"

#include <dlfcn.h>
#include <errno.h>

#include <mutex>
#include <string>

#include "zel/paxosutils.h"

namespace tls {
namespace {

const char kSystemSsl[] = "libssl.so.3";
const char kSystemCrypto[] = "libcrypto.so.3";

std::mutex loadMu;
Api table;
const Api* bound = nullptr;  // set once the table is complete
std::string sslName = kSystemSsl;
std::string cryptoName = kSystemCrypto;
bool namesForced = false;

// Binds one symbol; false (with the name traced) when it is missing.
template <typename Fn>
bool Bind(void* lib, const char* name, Fn* slot) {
  void* sym = dlsym(lib, name);
  if (sym == nullptr) {
    trace(1, "Auth: symbol %s missing from the TLS library", name);
    return false;
  }
  *slot = reinterpret_cast<Fn>(sym);
  return true;
}

#define BIND(lib, fn) ok = Bind(lib, #fn, &t.fn) && ok

bool BindAll(void* ssl, void* crypto, Api& t) {
  bool ok = true;
  BIND(ssl, TLS_method);
  BIND(ssl, SSL_CTX_new);
  BIND(ssl, SSL_CTX_free);
  BIND(ssl, SSL_CTX_up_ref);
  BIND(ssl, SSL_CTX_ctrl);
  BIND(ssl, SSL_CTX_set_options);
  BIND(ssl, SSL_CTX_clear_options);
  BIND(ssl, SSL_CTX_set_num_tickets);
  BIND(ssl, SSL_CTX_set_verify);
  BIND(ssl, SSL_CTX_use_PrivateKey_file);
  BIND(ssl, SSL_CTX_use_certificate_chain_file);
  BIND(ssl, SSL_CTX_check_private_key);
  BIND(ssl, SSL_new);
  BIND(ssl, SSL_free);
  BIND(ssl, SSL_set_bio);
  BIND(ssl, SSL_connect);
  BIND(ssl, SSL_accept);
  BIND(ssl, SSL_shutdown);
  BIND(ssl, SSL_get_error);
  BIND(ssl, SSL_get1_peer_certificate);
  BIND(crypto, BIO_get_new_index);
  BIND(crypto, BIO_meth_new);
  BIND(crypto, BIO_meth_set_write);
  BIND(crypto, BIO_meth_set_read);
  BIND(crypto, BIO_meth_set_ctrl);
  BIND(crypto, BIO_meth_set_create);
  BIND(crypto, BIO_new);
  BIND(crypto, BIO_set_data);
  BIND(crypto, BIO_get_data);
  BIND(crypto, BIO_set_init);
  BIND(crypto, BIO_set_flags);
  BIND(crypto, BIO_clear_flags);
  BIND(crypto, BIO_free);
  BIND(crypto, X509_free);
  BIND(crypto, d2i_X509);
  BIND(crypto, X509_get0_pubkey);
  BIND(crypto, i2d_PUBKEY);
  BIND(crypto, d2i_PUBKEY);
  BIND(crypto, EVP_PKEY_free);
  BIND(crypto, EVP_sha256);
  BIND(crypto, EVP_Digest);
  BIND(crypto, ERR_clear_error);
  BIND(crypto, ERR_get_error);
  BIND(crypto, ERR_error_string_n);
  return ok;
}

#undef BIND

}  // namespace

int Load(const Api** api) {
  std::lock_guard<std::mutex> lock(loadMu);
  if (bound != nullptr && !namesForced) {
    *api = bound;
    return 0;
  }
  // The libraries stay loaded for the life of the process: unloading them
  // would run their clean-up under other users' feet.
  void* crypto = dlopen(cryptoName.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* ssl = crypto ? dlopen(sslName.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
  if (ssl == nullptr) {
    const char* why = dlerror();
    trace(1, "Auth: cannot load the TLS library: %s", why ? why : "unknown reason");
    *api = nullptr;
    return ELIBACC;
  }
  Api t{};
  if (!BindAll(ssl, crypto, t)) {
    *api = nullptr;
    return ELIBACC;
  }
  table = t;
  bound = &table;
  namesForced = false;
  *api = bound;
  return 0;
}

const Api* Get() {
  std::lock_guard<std::mutex> lock(loadMu);
  return bound;
}

void SetLibraryNames(const char* ssl, const char* crypto) {
  std::lock_guard<std::mutex> lock(loadMu);
  sslName = ssl ? ssl : kSystemSsl;
  cryptoName = crypto ? crypto : kSystemCrypto;
  namesForced = ssl != nullptr || crypto != nullptr;
}

void DrainErrors(int level, const char* what) {
  const Api* a = Get();
  if (a == nullptr) return;
  for (int i = 0; i < 16; ++i) {  // the queue is short; bound it anyway
    unsigned long e = a->ERR_get_error();
    if (e == 0) return;
    char buf[256];
    a->ERR_error_string_n(e, buf, sizeof buf);
    trace(level, "Auth: %s: %s", what, buf);
  }
  a->ERR_clear_error();
}

}  // namespace tls
