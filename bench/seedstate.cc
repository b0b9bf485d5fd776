// Brings new zeld nodes into being with a committed state that already holds
// N values, for benchmarks of large states: building such a state through N
// updates would take hours, since every block carries the whole state.
//
//   seedstate CLUSTER_ID N_VALUES CLIENT_DIR HOST:PORT...
//
// Sends "init" to every node and writes CLIENT_DIR/zel.nodes, so kxzel with
// ZEL_BASE=CLIENT_DIR finds them. Values are "v000000" .. at version 1.
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "zel/kxconnect.h"
#include "zel/paxosinit.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"

int main(int argc, char** argv) {
  if (argc < 5) {
    fprintf(stderr, "usage: seedstate CLUSTER_ID N_VALUES CLIENT_DIR HOST:PORT...\n");
    return 2;
  }
  InitRequest req;
  req.clusterId = strtoull(argv[1], nullptr, 10);
  long n = strtol(argv[2], nullptr, 10);
  if (n < 0 || n > 1000000) {
    fprintf(stderr, "seedstate: N_VALUES must be 0 to 1000000\n");
    return 2;
  }
  std::string clientDir = argv[3];
  Nodes nodes;
  NodeList config;
  for (int i = 4; i < argc; i++) {
    std::string w = argv[i];
    size_t colon = w.rfind(':');
    if (colon == std::string::npos) {
      fprintf(stderr, "seedstate: '%s' is not HOST:PORT\n", argv[i]);
      return 2;
    }
    InitNode in;
    in.id = i - 3;
    in.name = w.substr(0, colon);
    in.addr = in.name;
    in.port = atoi(w.c_str() + colon + 1);
    req.nodes.push_back(in);
    nodes.push_back(Node(in.id, in.name, NodeLocation(in.addr, in.port)));
    NodeDescriptor d;
    d.id = in.id;
    d.slot = i - 4;
    d.listen = true;
    config.push_back(d);
  }
  req.block.committed.config = PaxosConfig(config, DiskList(), 1);
  char name[32];
  for (long k = 0; k < n; k++) {
    snprintf(name, sizeof name, "v%06ld", k);
    req.block.committed.valueList[name] = ValueVersion{1, "value"};
  }
  std::string body(static_cast<size_t>(req.getSize()), '\0');
  req.dump(&body[0]);
  fprintf(stderr, "seedstate: init body %zu bytes\n", body.size());
  for (const InitNode& in : req.nodes) {
    int type = 0;
    MsgBody reply;
    int rc = SendReceive(in.addr, in.port, MSG_TYPE_INIT, body.data(),
                         static_cast<int>(body.size()), &type, &reply, 60000);
    if (rc != 0 || type != MSG_TYPE_OK) {
      fprintf(stderr, "seedstate: init of %s:%d failed (err %d, reply %d)\n", in.addr.c_str(),
              in.port, rc, type);
      return 1;
    }
  }
  int rc = writeNodeList(clientDir + "/zel.nodes", nodes);
  if (rc != 0) {
    fprintf(stderr, "seedstate: writing %s/zel.nodes failed (err %d)\n", clientDir.c_str(), rc);
    return 1;
  }
  return 0;
}
