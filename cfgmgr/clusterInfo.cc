#include "cfgmgr/clusterInfo.h"

#include <cstdio>

void ClusterInfoList::insert(ClusterInfo* ci) {
  ci->next_ = nullptr;
  ci->seen = true;
  ClusterInfo** link = &head_;
  while (*link != nullptr) link = &(*link)->next_;
  *link = ci;
}

ClusterInfo* ClusterInfoList::find(uint64_t clusterID) const {
  for (ClusterInfo* ci = head_; ci != nullptr; ci = ci->next_) {
    if (ci->clusterID == clusterID) return ci;
  }
  return nullptr;
}

ClusterInfo* ClusterInfoList::find(const std::string& name) const {
  for (ClusterInfo* ci = head_; ci != nullptr; ci = ci->next_) {
    if (ci->clusterName == name) return ci;
  }
  return nullptr;
}

bool ClusterInfoList::contains(const ClusterInfo* ci) const {
  for (ClusterInfo* p = head_; p != nullptr; p = p->next_) {
    if (p == ci) return true;
  }
  return false;
}

bool ClusterInfoList::remove(ClusterInfo* ci) {
  for (ClusterInfo** link = &head_; *link != nullptr; link = &(*link)->next_) {
    if (*link == ci) {
      *link = ci->next_;
      delete ci;
      return true;
    }
  }
  return false;
}

void ClusterInfoList::removeAll() {
  while (head_ != nullptr) {
    ClusterInfo* ci = head_;
    head_ = ci->next_;
    delete ci;
  }
}

void ClusterInfoList::removeAllBut(uint64_t clusterID) {
  ClusterInfo** link = &head_;
  while (*link != nullptr) {
    ClusterInfo* ci = *link;
    if (ci->clusterID != clusterID) {
      *link = ci->next_;
      delete ci;
    } else {
      link = &ci->next_;
    }
  }
}

void ClusterInfoList::removeUnseen() {
  ClusterInfo** link = &head_;
  while (*link != nullptr) {
    ClusterInfo* ci = *link;
    if (!ci->seen) {
      *link = ci->next_;
      delete ci;
    } else {
      link = &ci->next_;
    }
  }
}

void ClusterInfoList::clearSeen() {
  for (ClusterInfo* ci = head_; ci != nullptr; ci = ci->next_) ci->seen = false;
}

std::string ClusterInfoList::dump() const {
  std::string out = "clusterName              port cKeyGen nKeyGen cipherList\n";
  for (ClusterInfo* ci = head_; ci != nullptr; ci = ci->next_) {
    char line[512];
    snprintf(line, sizeof line, "%-24s %4d %7d %7d %-10s\n", ci->clusterName.c_str(), ci->port,
             ci->committedKeyGenNumber, ci->newKeyGenNumber,
             ci->hasCipherList ? ci->cipherList.c_str() : "EMPTY");
    out += line;
  }
  return out;
}
