// The authorized-keys list: one entry per cluster whose key this node accepts,
// read from the authorized-keys file (key=value lines, key blocks as the
// secure transport reads them).
#ifndef CFGMGR_CLUSTERINFO_H
#define CFGMGR_CLUSTERINFO_H

#include <cstdint>
#include <string>

// One cluster's entry. Keys are held as their identities (SecKeyId).
class ClusterInfo {
 public:
  std::string clusterName;
  uint64_t clusterID = 0;
  int port = 0;
  int committedKeyGenNumber = -1;
  std::string committedKey;
  int newKeyGenNumber = -1;
  std::string newKey;
  std::string cipherList;
  bool hasCipherList = false;
  bool seen = false;

 private:
  friend class ClusterInfoList;
  ClusterInfo* next_ = nullptr;
};

// A singly linked list that owns its entries; entries keep the file's order.
class ClusterInfoList {
 public:
  ClusterInfoList() = default;
  ~ClusterInfoList() { removeAll(); }
  ClusterInfoList(const ClusterInfoList&) = delete;
  ClusterInfoList& operator=(const ClusterInfoList&) = delete;

  // Takes ownership and appends; the entry is marked seen.
  void insert(ClusterInfo* ci);
  // The first entry with the id or name, or null.
  ClusterInfo* find(uint64_t clusterID) const;
  ClusterInfo* find(const std::string& name) const;
  bool contains(const ClusterInfo* ci) const;
  // Unlinks and deletes the entry; false when it is not in the list.
  bool remove(ClusterInfo* ci);
  void removeAll();
  // Keeps only the entries with the cluster id.
  void removeAllBut(uint64_t clusterID);
  // Drops the entries not seen since the last clearSeen.
  void removeUnseen();
  void clearSeen();
  bool isEmpty() const { return head_ == nullptr; }
  ClusterInfo* getHead() const { return head_; }
  static ClusterInfo* next(const ClusterInfo* ci) { return ci->next_; }
  // The header line and one line per entry.
  std::string dump() const;

 private:
  ClusterInfo* head_ = nullptr;
};

// Process-wide settings that the file may carry besides the entries; -1 when
// the file does not set them.
struct AuthKeysSettings {
  int fips1402Mode = -1;
  int nistCompliance = -1;
};

// Parses the file into list (entries are appended). On an error the message
// "[E] Unable to load keys from <path>, err <err> rc <rc>." goes to standard
// error, the entry being built is dropped and the error is returned; *rc (when
// given) receives the rc: 1 the file cannot be opened, 2 a read error, 4 a line
// without "=", 5 a cluster key before any "clusterName", 6 out of memory, and
// 8 to 23 for the values of the keys.
int ReadAuthorizedKeys(const char* path, ClusterInfoList* list, AuthKeysSettings* settings,
                       int* rc = nullptr);

// The separate pass that reads only "fips1402mode": sets *mode to 1 or 0 when
// present; errors are reported as ReadAuthorizedKeys reports them.
int ReadFipsMode(const char* path, int* mode);

#endif  // CFGMGR_CLUSTERINFO_H
