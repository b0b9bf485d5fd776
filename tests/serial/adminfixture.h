// A test installation whose node list names fake servers (a cluster on
// loopback), with scripting helpers for the administration subcommands.
#ifndef TESTS_SERIAL_ADMINFIXTURE_H
#define TESTS_SERIAL_ADMINFIXTURE_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "zel/zelmsg.h"

class AdminFixture : public CliFixture {
 protected:
  void SetUp() override {
    for (int i = 0; i < 4; i++) srv_.push_back(std::make_unique<FakeServer>());
    nodes_ = "";
    CliFixture::SetUp();
  }
  FakeServer& srv(int i) { return *srv_[i]; }
  std::string Loc(int i) const { return "127.0.0.1:" + std::to_string(srv_[i]->port()); }
  // The node-list line of server i as node id with name.
  std::string Line(int id, int i, const std::string& name, int old = 0) const {
    return std::to_string(id) + "," + std::to_string(old) + ",127.0.0.1," +
           std::to_string(srv_[i]->port()) + "," + name + "\n";
  }
  // A committed state whose configuration holds (id, slot) nodes, listening.
  static CommittedState Cfg(const std::vector<std::pair<int, int>>& nodes,
                            const DiskList& disks = {}, int minNodes = 1, int version = 5) {
    CommittedState s;
    for (const auto& [id, slot] : nodes) {
      NodeDescriptor d;
      d.id = id;
      d.slot = slot;
      d.listen = true;
      s.config.nodes.push_back(d);
    }
    s.config.disks = disks;
    s.config.minNodes = minNodes;
    s.cfgVersion = version;
    return s;
  }
  // Server i answers the fetch of the repository file name with content.
  void ServeFile(int i, const std::string& name, const std::string& content,
                 const CommittedState& state) {
    srv(i)
        .expect(MSG_TYPE_FGET, S(name) + V(-1, -1))
        .reply(REPLY_TYPE_SEQ_COMMIT_FGET, Commit(7, state) + V(2, 0) + V(content.size(), 0))
        .sendFile(content);
  }
  // Server i accepts one fput (or config) update.
  void AcceptPut(int i) {
    srv(i)
        .expect(MSG_TYPE_FPUT)
        .reply(REPLY_TYPE_UID_FPUT, Encode(UpdateId(1, 1, 1)) + "\x01")
        .receiveFile();
    srv(i).expect(MSG_TYPE_OK).reply(REPLY_TYPE_SEQ_COMMIT, Commit(8, CommittedState()));
  }
  void AcceptConfig(int i, const std::string& body) {
    srv(i).expect(MSG_TYPE_CONFIG, body).reply(REPLY_TYPE_UID, Encode(UpdateId(1, 1, 2)));
    srv(i).expect(MSG_TYPE_OK).reply(REPLY_TYPE_SEQ_COMMIT, Commit(9, CommittedState()));
  }
  // The body of a first "config" attempt.
  static std::string ConfigBody(const ConfigUpdate& cu, int condVersion) {
    return Encode(UpdateId()) + Encode(cu) + V(condVersion, -1);
  }
  // The file contents server i received through fput, in order.
  std::vector<std::string> Puts(int i) {
    std::vector<std::string> out;
    for (const FakeFile& f : srv(i).files()) out.push_back(f.data);
    return out;
  }
  bool AllDone() {
    bool ok = true;
    for (auto& s : srv_) ok = s->waitDone(3000) && ok;
    return ok;
  }
  std::string Out(const std::string& s) const { return BaseLine() + s; }

  std::vector<std::unique_ptr<FakeServer>> srv_;
};

#endif  // TESTS_SERIAL_ADMINFIXTURE_H
