// An in-memory stand-in for the agreement engine, for tests of the request
// service: one state, updates applied in submit order under a lock, the
// applied callback run before submit returns. Not durable.
#ifndef TESTS_SUPPORT_MEMREPLICA_H
#define TESTS_SUPPORT_MEMREPLICA_H

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/replica.h"
#include "server/repository.h"

class MemReplica : public zeld::Replica {
 public:
  MemReplica(const Dblock& initial, const zeld::AppliedFn& applied)
      : seq_(initial.seq), state_(initial.committed), applied_(applied) {}

  int submit(const zeld::PrepareFn& prepare, int* seq, StateRef* state) override {
    std::lock_guard<std::mutex> g(mu_);
    ProposedUpdate u;
    int rc = failNext_ != 0 ? failNext_ : prepare(state_, &u);
    failNext_ = 0;
    if (rc != 0 && state_.includes(u.uid) == 0) return rc;
    if (state_.includes(u.uid) == 0) {
      state_.apply(u);
      if (applied_) applied_(seq_, state_, u);
      seq_++;
      submitted_++;
    }
    *seq = seq_;
    *state = std::make_shared<const CommittedState>(state_);
    return 0;
  }
  void snapshot(int* seq, StateRef* state) const override {
    std::lock_guard<std::mutex> g(mu_);
    *seq = seq_;
    *state = std::make_shared<const CommittedState>(state_);
  }
  int barrier(int* seq, StateRef* state) override {
    snapshot(seq, state);
    return 0;
  }
  std::string describe() const override { return "memory replica"; }
  void stop() override {}

  void failNext(int rc) {
    std::lock_guard<std::mutex> g(mu_);
    failNext_ = rc;
  }
  int applied() const {
    std::lock_guard<std::mutex> g(mu_);
    return submitted_;
  }

 private:
  mutable std::mutex mu_;
  int seq_;
  CommittedState state_;
  zeld::AppliedFn applied_;
  int failNext_ = 0;
  int submitted_ = 0;
};

// A factory over MemReplica; the "store" is a map from path to initial block
// kept by the factory, so a repository re-opened in the same test finds it.
struct MemReplicaFactory {
  std::shared_ptr<std::map<std::string, Dblock>> stores =
      std::make_shared<std::map<std::string, Dblock>>();
  std::shared_ptr<MemReplica*> last = std::make_shared<MemReplica*>(nullptr);

  zeld::ReplicaFactory factory() const {
    zeld::ReplicaFactory f;
    auto s = stores;
    auto l = last;
    f.initStore = [s](const std::string& path, int, const Dblock& b) {
      (*s)[path] = b;
      return 0;
    };
    f.open = [s, l](const std::string& path, int, const zeld::ReplicaHooks& hooks,
                    std::shared_ptr<zeld::Disk>*, std::unique_ptr<zeld::Replica>* out) {
      auto it = s->find(path);
      if (it == s->end()) return ENOENT;
      auto* r = new MemReplica(it->second, hooks.applied);
      *l = r;
      out->reset(r);
      return 0;
    };
    return f;
  }
};

#endif  // TESTS_SUPPORT_MEMREPLICA_H
