// zel-tour: a real repository on this machine, driven by the real client. It
// brings up three zeld-testinstall nodes and a tiebreaker disk with zel-local in
// a temporary directory and runs kxzel-testinstall through values (a conditional
// update refused), a 64 MiB file sent and fetched with its checksum compared and
// the progress shown, a node stopped while reads and writes go on and then
// started and caught up, a fourth node added with chnodes, the disk replaced with
// chdisks, and zel-local down, leaving nothing running. Each step shows the
// command as typed, its output and exit status.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/spawn.h"
#include "zel/paxosutils.h"

namespace {

std::string buildDir() {
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, n > 0 ? static_cast<size_t>(n) : 0);
  dir = dir.substr(0, dir.rfind('/'));   // build/tests
  return dir.substr(0, dir.rfind('/'));  // build
}

std::string shellWord(const std::string& w) {
  if (!w.empty() && w.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789-_./:=,@%+") == std::string::npos) {
    return w;
  }
  std::string q = "'";
  for (char c : w) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  return remove(path);
}

class Tour {
 public:
  explicit Tour(const std::string& dir) : dir_(dir), log_(dir + ".out") {}

  // Runs tool (a file in the build directory) and shows it; counts a status other
  // than the one expected. The output is kept for the caller.
  std::string run(const std::string& tool, const std::vector<std::string>& args, int expected,
                  const EnvList& extra = {}) {
    std::string shown = "$ ";
    for (const auto& e : extra) shown += e.first + "=" + shellWord(e.second) + " ";
    shown += tool;
    for (const auto& a : args) shown += " " + shellWord(a);
    printf("%s\n", shown.c_str());
    fflush(stdout);
    SpawnOptions o;
    o.argv = {buildDir() + "/" + tool};
    o.argv.insert(o.argv.end(), args.begin(), args.end());
    EnvList env = env_;
    for (const auto& e : extra) {
      auto same = [&](const std::pair<std::string, std::string>& o) { return o.first == e.first; };
      env.erase(std::remove_if(env.begin(), env.end(), same), env.end());
      env.push_back(e);
    }
    o.env = TestEnvironment(env);
    o.stdoutPath = o.stderrPath = log_;
    int rc = 127;
    pid_t pid = SpawnProcess(o);
    if (pid < 0) {
      perror("zel-tour: spawn");
    } else if (!WaitProcess(pid, 60000, &rc)) {
      KillProcess(pid, SIGKILL);
      rc = 128 + SIGKILL;
    }
    std::string out = slurp(log_);
    fputs(out.c_str(), stdout);
    printf("[exit status %d]\n\n", rc);
    if (rc != expected) {
      printf("zel-tour: expected exit status %d\n\n", expected);
      wrong_++;
    }
    return out;
  }
  void note(const std::string& text, bool ok = true) {
    printf("# %s\n\n", text.c_str());
    if (!ok) wrong_++;
  }
  void setEnv(const EnvList& env) { env_ = env; }
  int wrong() const { return wrong_; }

 private:
  std::string dir_, log_;
  EnvList env_;
  int wrong_ = 0;
};

// A file of size bytes that does not compress away; its cksum CRC.
bool makeFile(const std::string& path, long long size, unsigned int* crc) {
  FILE* f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::vector<unsigned char> buf(1 << 20);
  unsigned long long x = 0x9e3779b97f4a7c15ULL;
  unsigned int c = 0;
  for (long long done = 0; done < size; done += static_cast<long long>(buf.size())) {
    for (auto& b : buf) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      b = static_cast<unsigned char>(x);
    }
    c = partialcrc(buf.data(), buf.size(), c);
    if (fwrite(buf.data(), 1, buf.size(), f) != buf.size()) {
      fclose(f);
      return false;
    }
  }
  *crc = finalcrc(c, static_cast<unsigned long>(size));
  return fclose(f) == 0;
}

bool fileCrc(const std::string& path, unsigned int* crc) {
  FILE* f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  std::vector<unsigned char> buf(1 << 20);
  unsigned int c = 0;
  unsigned long total = 0;
  size_t n;
  while ((n = fread(buf.data(), 1, buf.size(), f)) > 0) {
    c = partialcrc(buf.data(), n, c);
    total += n;
  }
  fclose(f);
  *crc = finalcrc(c, total);
  return true;
}

// The name of the first entry of dir that starts with prefix, or "".
std::string entryStartingWith(const std::string& dir, const std::string& prefix) {
  std::string found;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (found.empty() && std::string(e->d_name).compare(0, prefix.size(), prefix) == 0) {
        found = e->d_name;
      }
    }
    closedir(d);
  }
  return found;
}

// Node id -> port, from the lines of zel-local status.
std::vector<std::string> portsOf(const std::string& status) {
  std::vector<std::string> ports;
  std::regex line("\\n +(\\d+)  (\\d+) ");
  for (std::sregex_iterator i(status.begin(), status.end(), line), e; i != e; ++i) {
    size_t id = static_cast<size_t>(std::stoi((*i)[1]));
    if (ports.size() <= id) ports.resize(id + 1);
    ports[id] = (*i)[2];
  }
  return ports;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/zel-tour-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("zel-tour: mkdtemp");
    return 1;
  }
  const std::string top = tmpl, dir = top + "/repo";
  Tour t(top + "/step");
  printf(
      "A repository of three zeld-testinstall nodes and one tiebreaker disk in %s,\n"
      "run by zel-local.\n\n",
      dir.c_str());

  std::string up = t.run("zel-local", {"up", dir}, 0);
  std::smatch m;
  if (!std::regex_search(up, m, std::regex("export ZEL_BASE=(\\S+) ZEL_PORT=(\\d+)"))) {
    printf("zel-tour: zel-local up printed no export line\n");
    t.run("zel-local", {"down", dir}, 0);
    nftw(top.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
    return 1;
  }
  t.setEnv({{"ZEL_BASE", m[1]}, {"ZEL_PORT", m[2]}});
  t.note(
      "every kxzel-testinstall below runs with that ZEL_BASE and ZEL_PORT (node 1's port:\n"
      "# the client asks node 1 first, and the others when it does not answer)");
  std::vector<std::string> ports = portsOf(t.run("zel-local", {"status", dir}, 0));
  ports.resize(5);
  t.run("kxzel-testinstall", {"lsnodes"}, 0);
  t.run("kxzel-testinstall", {"lsdisks"}, 0);

  t.run("kxzel-testinstall", {"vput", "greeting", "hello world"}, 0);
  t.run("kxzel-testinstall", {"vget", "greeting"}, 0);
  t.note("a conditional update against a version that is not the current one is refused");
  t.run("kxzel-testinstall", {"vput", "-c", "5", "greeting", "stale"}, 153);
  t.run("kxzel-testinstall", {"vput", "-c", "1", "greeting", "hello again"}, 0);
  t.run("kxzel-testinstall", {"vput", "answer", "42"}, 0);
  t.run("kxzel-testinstall", {"vlist"}, 0);
  t.run("kxzel-testinstall", {"vdel", "answer"}, 0);
  t.run("kxzel-testinstall", {"vget", "answer"}, 149);

  const std::string big = top + "/big.bin", copy = top + "/copy.bin";
  unsigned int crcBig = 0, crcCopy = 1;
  bool made = makeFile(big, 64LL << 20, &crcBig);
  t.note("generated " + big + ": 67108864 bytes, cksum " + std::to_string(crcBig), made);
  t.run("kxzel-testinstall", {"fput", "big", big}, 0, {{"ZEL_PROGRESS", "1"}});
  t.run("kxzel-testinstall", {"fget", "big", copy}, 0, {{"ZEL_PROGRESS", "1"}});
  bool same = fileCrc(copy, &crcCopy) && crcCopy == crcBig;
  t.note("the copy's cksum: " + std::to_string(crcCopy) + (same ? " (the same)" : " (DIFFERENT)"),
         same);
  t.run("kxzel-testinstall", {"flist"}, 0);

  t.note("stop node 2: nodes 1 and 3 and the tiebreaker disk go on serving");
  t.run("zel-local", {"stop", dir, "2"}, 0);
  t.run("kxzel-testinstall", {"health"}, 0);
  t.run("kxzel-testinstall", {"vput", "greeting", "written while node 2 was down"}, 0);
  const std::string small = top + "/notes.txt", smallCopy = top + "/notes-copy.txt";
  unsigned int crcSmall = 0;
  made = makeFile(small, 1 << 20, &crcSmall);
  t.note("generated " + small + ": 1048576 bytes, cksum " + std::to_string(crcSmall), made);
  t.run("kxzel-testinstall", {"fput", "notes", small}, 0);
  t.run("kxzel-testinstall", {"vget", "greeting"}, 0);

  t.note("start node 2 again: it catches up from the others");
  t.run("zel-local", {"start", dir, "2"}, 0);
  t.run("kxzel-testinstall", {"health"}, 0);
  t.note("with node 2's port the client asks node 2 first");
  t.run("kxzel-testinstall", {"vget", "greeting"}, 0, {{"ZEL_PORT", ports[2]}});
  // Files missed while down are fetched by a thread of the node's own.
  std::string got;
  for (int i = 0; i < 150 && got.empty(); i++) {
    got = entryStartingWith(dir + "/node2/committed", "notes.");
    if (got.empty()) usleep(100000);
  }
  t.note(got.empty() ? "node 2 has not fetched the file notes after 15 s"
                     : "node 2 has fetched the file it missed: " + dir + "/node2/committed/" + got,
         !got.empty());
  t.note("stop nodes 1 and 3: node 2 and the tiebreaker disk serve alone, with what it caught up");
  t.run("zel-local", {"stop", dir, "1"}, 0);
  t.run("zel-local", {"stop", dir, "3"}, 0);
  t.run("kxzel-testinstall", {"vget", "greeting"}, 0);
  t.run("kxzel-testinstall", {"fget", "notes", smallCopy}, 0);
  same = fileCrc(smallCopy, &crcCopy) && crcCopy == crcSmall;
  t.note("the copy's cksum: " + std::to_string(crcCopy) + (same ? " (the same)" : " (DIFFERENT)"),
         same);
  t.run("zel-local", {"start", dir, "1"}, 0);
  t.run("zel-local", {"start", dir, "3"}, 0);

  t.note("add a fourth node: zel-local starts it, chnodes makes it a quorum node");
  std::string added = t.run("zel-local", {"add", dir}, 0);
  std::string four;
  if (std::regex_search(added, m, std::regex("^127\\.0\\.0\\.1:\\d+$", std::regex::multiline))) {
    for (int id = 1; id <= 3; id++) four += "127.0.0.1:" + ports[static_cast<size_t>(id)] + ",";
    four += m[0].str();
  }
  t.note("the new node's location: " + (four.empty() ? "none printed" : m[0].str()), !four.empty());
  t.run("kxzel-testinstall", {"chnodes", "-n", four}, 0);
  t.run("kxzel-testinstall", {"lsnodes"}, 0);

  t.note("replace the tiebreaker disk by a new file");
  t.run("kxzel-testinstall", {"chdisks", "-d", dir + "/disks/disk2"}, 0);
  t.run("kxzel-testinstall", {"lsdisks"}, 0);
  t.run("kxzel-testinstall", {"vget", "greeting"}, 0);

  t.run("zel-local", {"down", dir}, 0);
  int left = static_cast<int>(ProcessesUnder(dir).size());
  t.note(left == 0 ? "no process of the repository is left"
                   : std::to_string(left) + " process(es) of the repository still run",
         left == 0);

  if (nftw(top.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) != 0) {
    fprintf(stderr, "zel-tour: could not remove %s\n", top.c_str());
  }
  printf(t.wrong() == 0 ? "zel-tour: every step ended as expected\n"
                        : "zel-tour: %d step(s) ended unexpectedly\n",
         t.wrong());
  return t.wrong() == 0 ? 0 : 1;
}
