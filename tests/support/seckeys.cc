#include "seckeys.h"

#include <unistd.h>

#include <mutex>
#include <vector>

#include "testutil.h"
#include "transport/tlsapi.h"

namespace {

std::string OpensslTool() {
  for (const char* p : {"/usr/bin/openssl", "/usr/local/bin/openssl", "/bin/openssl"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

}  // namespace

std::string SecTestSkipReason() {
  if (OpensslTool().empty()) return "the openssl command-line tool is not installed";
  const tls::Api* a = nullptr;
  if (tls::Load(&a) != 0) return "the system TLS libraries (libssl.so.3) are not installed";
  return "";
}

namespace {

bool Run(const std::vector<std::string>& argv) {
  RunResult r = RunCommand(argv, {}, 30000);
  return r.exitStatus == 0 && !r.timedOut;
}

}  // namespace

bool MakeTestKey(const std::string& dir, const std::string& name, TestKey* out) {
  std::string tool = OpensslTool();
  std::string base = dir + "/" + name;
  out->keyPath = base + ".key";
  out->certPath = base + ".cert";
  out->bothPath = base + ".pem";
  std::string pub = base + ".pub", der = base + ".der";
  if (!Run({tool, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-nodes", "-keyout", out->keyPath, "-out", out->certPath, "-days", "30", "-subj",
            "/CN=" + name}) ||
      !Run({tool, "pkey", "-in", out->keyPath, "-pubout", "-out", pub}) ||
      !Run({tool, "pkey", "-in", out->keyPath, "-pubout", "-outform", "DER", "-out", der})) {
    return false;
  }
  RunResult d = RunCommand({tool, "dgst", "-sha256", "-r", der}, {}, 30000);
  if (d.exitStatus != 0 || d.out.size() < 64) return false;
  out->digestHex = d.out.substr(0, 64);
  out->pubPem = ReadFile(pub);
  out->certPem = ReadFile(out->certPath);
  WriteFile(out->bothPath, ReadFile(out->keyPath) + out->certPem);
  return out->pubPem.find("BEGIN PUBLIC KEY") != std::string::npos;
}

const TestKey* SharedTestKey(int i) {
  static std::mutex mu;
  static TempDir dir;  // removed at exit
  static TestKey* keys[4] = {};
  if (i < 0 || i >= 4) return nullptr;
  std::lock_guard<std::mutex> g(mu);
  if (keys[i] == nullptr) {
    TestKey* k = new TestKey;
    if (!MakeTestKey(dir.path(), "shared" + std::to_string(i), k)) {
      delete k;
      return nullptr;
    }
    keys[i] = k;
  }
  return keys[i];
}
