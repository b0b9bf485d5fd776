// Another node's block store as a disk of Disk Paxos, reached with "pxread" and
// "pxrdwr" over one kept connection. Every wait is short and bounded: a node
// that is down, slow or talking nonsense is an error code, never a hang.
#ifndef SERVER_REMOTEDISK_H
#define SERVER_REMOTEDISK_H

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/replica.h"
#include "zel/kxcomm.h"

namespace zeld {

// Where this node keeps the content of a file update (staged or committed): 0
// with its path, or the code to answer the store with.
using PxFileSourceFn = std::function<int(const ProposedUpdate& u, std::string* path)>;

class RemoteDisk : public Disk {
 public:
  struct Options {
    int connectTimeoutMs = 1000;
    // Per wait for the store's reply; the store writes and syncs a block.
    int ioTimeoutMs = 5000;
  };

  // Where the store is now: 0 with its address, or why it cannot be reached.
  using AddrFn = std::function<int(CommAddr* out)>;

  // selfId is this node's id (sent as reader or writer); peerId names the store.
  RemoteDisk(int selfId, int peerId, const CommAddr& addr, PxFileSourceFn files,
             const Options& opt);
  // The address looked up at each new connection (a node list may change).
  RemoteDisk(int selfId, int peerId, AddrFn addr, PxFileSourceFn files, const Options& opt);
  RemoteDisk(int selfId, int peerId, const CommAddr& addr, PxFileSourceFn files = nullptr)
      : RemoteDisk(selfId, peerId, addr, std::move(files), Options()) {}
  ~RemoteDisk() override;

  int writeRead(int writerId, int slot, const SharedBlock& b, std::vector<SlotBlock>* out) override;
  int read(std::vector<SlotBlock>* out) override { return readFor(0, out); }
  int readFor(int seq, std::vector<SlotBlock>* out) override;
  std::string label() const override { return "node " + std::to_string(peerId_); }

 private:
  // One request and its reply on the kept connection, reconnecting once when a
  // kept connection turns out dead before any reply came.
  int exchange(int type, const std::string& body, const ProposedUpdate* inp,
               std::vector<SlotBlock>* out);
  int exchangeOnce(int type, const std::string& body, const ProposedUpdate* inp,
                   std::vector<SlotBlock>* out, bool* replied);
  int sendInputFile(const ProposedUpdate* inp, const char* body, int len);
  void drop();

  int selfId_;
  int peerId_;
  AddrFn addr_;
  PxFileSourceFn files_;
  Options opt_;
  std::mutex mu_;  // one exchange at a time on the connection
  Connection* conn_ = nullptr;
};

}  // namespace zeld

#endif  // SERVER_REMOTEDISK_H
