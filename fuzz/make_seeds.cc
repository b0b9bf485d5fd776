// Writes the seed corpora under fuzz/corpus/. Not part of the build:
//   g++ -std=c++17 -I. fuzz/make_seeds.cc build/libzelcore.a -lpthread -o /tmp/make_seeds
//   /tmp/make_seeds fuzz/corpus
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

namespace {

std::string dir;

template <typename R>
std::string Enc(const R& r) {
  std::string s(static_cast<size_t>(r.getSize()), '\0');
  r.dump(&s[0]);
  return s;
}

std::string V(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}

// A message header (length, type + 512, two reserved bytes) and the body.
std::string Msg(int type, const std::string& body) {
  char h[8] = {};
  DumpUInt32(h, static_cast<unsigned int>(body.size()));
  h[4] = static_cast<char>((type + 512) >> 8);
  h[5] = static_cast<char>(type + 512);
  return std::string(h, 8) + body;
}

void Put(const std::string& target, const std::string& name, const std::string& bytes) {
  std::string d = dir + "/" + target;
  mkdir(d.c_str(), 0755);
  FILE* f = fopen((d + "/" + name).c_str(), "wb");
  if (f == nullptr) return;
  fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
}

ConfigUpdate SampleConfigUpdate() {
  ConfigData cd;
  NodeDescriptor n;
  n.id = 1;
  n.slot = 0;
  n.version = 3;
  n.listen = true;
  cd.nodes.push_back(n);
  n.id = 2;
  n.slot = -1;
  n.version = 0;
  cd.nodes.push_back(n);
  cd.disks = {5, 6};
  cd.minNodes = 1;
  return ConfigUpdate(cd, true, true);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  dir = argv[1];
  mkdir(dir.c_str(), 0755);

  ProposedUpdate ups[] = {
      ProposedUpdate(UpdateId(1, 1, 1)),
      ProposedUpdate(UpdateId(1, 2, 3), ValueUpdate("name", "value"), 7),
      ProposedUpdate(UpdateId(1, 2, 4), ValueDeletion("name")),
      ProposedUpdate(UpdateId(2, 1, 200), FileUpdate("zel.nodes", 1, 0, 0xCAFEF00D), 2),
      ProposedUpdate(UpdateId(2, 1, 201), FileDeletion("f", 9)),
      ProposedUpdate(UpdateId(3, 1, 1), SampleConfigUpdate()),
      ProposedUpdate(UpdateId(3, 1, 2), LeaderUpdate(3, 5000), 4),
  };
  ups[3].listn = {0, 10};
  for (int i = 0; i < 7; i++) Put("proposedupdate_fuzz", "u" + std::to_string(i), Enc(ups[i]));

  Put("configupdate_fuzz", "empty", Enc(ConfigUpdate()));
  Put("configupdate_fuzz", "full", Enc(SampleConfigUpdate()));

  CommittedState s;
  ProposedUpdate cu(UpdateId(3, 1, 0), SampleConfigUpdate());
  cu.version = 1;
  s.apply(cu);
  for (int i = 1; i < 7; i++) {
    ProposedUpdate u = ups[i];
    if (u.version == -1) u.version = 10 + i;
    s.apply(u);
  }
  s.apply(ProposedUpdate(UpdateId(4, 1, 1), ValueUpdate("other", ""), 1));
  Put("committedstate_fuzz", "fresh", Enc(CommittedState()));
  Put("committedstate_fuzz", "sample", Enc(s));

  Dblock b;
  b.seq = 4;
  b.mbal = BallotNumber(2, 1);
  b.bal = BallotNumber(1, 0);
  b.inp = ups[1];
  b.committed = s;
  Put("dblock_fuzz", "with_inp", Enc(b));
  b.inp.reset();
  b.leaderChallengeVersion = 3;
  Put("dblock_fuzz", "no_inp", Enc(b));

  for (int fmt : {0, 1}) {
    PaxosFileData pfd;
    pfd.epoch = 2;
    pfd.slotAssignmentVersion = 1;
    pfd.summary.seq = 5;
    pfd.summary.committed = s;
    pfd.summary.inp = ups[3];
    PaxosHeader h;
    h.initHdr();
    h.fmtVersion = static_cast<unsigned int>(fmt);
    h.cid = 0x1122334455667788ULL;
    h.lastWriterId = 1;
    int size = h.getSize() + pfd.getSize(fmt);
    h.len = static_cast<unsigned int>(size);
    std::string buf(static_cast<size_t>(size), '\0');
    pfd.dump(h.dump(&buf[0]), fmt);
    h.setCRC(&buf[0], size);
    Put("paxosfile_fuzz", "fmt" + std::to_string(fmt), buf);
  }

  // Repository replies (first byte 3: no greeting, decode as replies).
  std::string st = Enc(s);
  FileIdMap ids;
  ids[1] = FileItem{"zel.nodes", "", 0};
  std::string uid = Enc(UpdateId(1, 2, 3));
  std::string replies = std::string(1, '\3') + Msg(50, V(7, 0) + st) +
                        Msg(53, V(7, 0) + st + Enc(ids)) + Msg(55, uid + "\1") +
                        Msg(52, V(7, 0) + st + V(1, 0) + V(100, 0));
  Put("serverreply_fuzz", "replies_ok", replies);
  replies = std::string(1, '\3') + Msg(51, V(819, -1) + V(3, 0) + st) +
            Msg(61, V(149, -1) + V(2, -1)) + Msg(62, V(3, 0) + st + "\1" + V(20, 0)) +
            Msg(54, uid) + Msg(-1, V(806, -1));
  Put("serverreply_fuzz", "replies_errors", replies);
  return 0;
}
