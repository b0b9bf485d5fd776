// Records of the replicated repository and their binary encoding.
//
// Every record has getSize() (exact bytes dump writes), dump(p) (returns the
// end pointer) and load(p, end) (never reads at or past end; returns the end
// pointer or null on malformed input, possibly leaving the record partially
// filled). Text forms go through operator<< or toString().
#ifndef ZEL_PAXOSDATA_H
#define ZEL_PAXOSDATA_H

#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

// ---- Configuration ----

struct NodeDescriptor {
  int id = 0;
  int slot = -1;  // disk slot; -1 none
  int version = 0;
  bool listen = false;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const NodeDescriptor& o) const {
    return id == o.id && slot == o.slot && version == o.version && listen == o.listen;
  }
  bool operator!=(const NodeDescriptor& o) const { return !(*this == o); }
};

class NodeList : public std::vector<NodeDescriptor> {
 public:
  using std::vector<NodeDescriptor>::vector;
  int getSize() const;
  char* dump(char* p) const;
  // Keeps the entries decoded before a failure.
  const char* load(const char* p, const char* end);
  // First entry with that id, or null.
  const NodeDescriptor* findNode(int id) const;
  NodeDescriptor* findNode(int id);
  // Same ids, slots and versions in the same order; listen is ignored.
  bool isEquivalent(const NodeList& o) const;
};

class DiskList : public std::vector<int> {
 public:
  using std::vector<int>::vector;
  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
};

struct ConfigData {
  NodeList nodes;
  DiskList disks;
  int minNodes = -1;

  int getSize() const;
  char* dump(char* p) const;
  // On failure minNodes is -1 unless it was read.
  const char* load(const char* p, const char* end);
  bool operator==(const ConfigData& o) const {
    return minNodes == o.minNodes && nodes == o.nodes && disks == o.disks;
  }
  bool operator!=(const ConfigData& o) const { return !(*this == o); }
};

class PaxosConfig : public ConfigData {
 public:
  PaxosConfig();
  PaxosConfig(const NodeList& n, const DiskList& d, int minN);
  PaxosConfig(const PaxosConfig&) = default;
  PaxosConfig& operator=(const PaxosConfig&) = default;
  virtual ~PaxosConfig() = default;

  char* dump(char* p) const;
  bool isEquivalent(const PaxosConfig& o) const;
  // positions are indexes into the node list, not node ids.
  void updateListeners(std::vector<int> positions);
  std::string toString() const;
};

// Base of the payloads a ProposedUpdate owns.
class UpdatePayload {
 public:
  virtual ~UpdatePayload() = default;
  // A copy, or null when memory is short.
  virtual UpdatePayload* clone() const = 0;
  virtual int getSize() const = 0;
  virtual char* dump(char* p) const = 0;
  virtual const char* load(const char* p, const char* end) = 0;
  virtual void print(std::ostream& os) const = 0;
};

struct ConfigUpdate : public ConfigData, public UpdatePayload {
  bool changeNodes = false;
  bool changeDisks = false;

  ConfigUpdate() = default;
  ConfigUpdate(const ConfigData& d, bool nodesChange, bool disksChange)
      : ConfigData(d), changeNodes(nodesChange), changeDisks(disksChange) {}
  UpdatePayload* clone() const override { return new (std::nothrow) ConfigUpdate(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  // Input ending before the flags still clears the lists (minNodes -1).
  const char* load(const char* p, const char* end) override;
  void print(std::ostream& os) const override;
  bool operator==(const ConfigUpdate& o) const {
    return changeNodes == o.changeNodes && changeDisks == o.changeDisks &&
           ConfigData::operator==(o);
  }
  bool operator!=(const ConfigUpdate& o) const { return !(*this == o); }
};

std::ostream& operator<<(std::ostream& os, const NodeDescriptor& n);
std::ostream& operator<<(std::ostream& os, const NodeList& l);
std::ostream& operator<<(std::ostream& os, const DiskList& l);
std::ostream& operator<<(std::ostream& os, const ConfigData& c);
std::ostream& operator<<(std::ostream& os, const ConfigUpdate& c);

// ---- Update identifiers ----

struct UpdateStream {
  int node = 0;
  int epoch = 0;

  bool operator<(const UpdateStream& o) const {
    return node != o.node ? node < o.node : epoch < o.epoch;
  }
  bool operator==(const UpdateStream& o) const { return node == o.node && epoch == o.epoch; }
  bool operator!=(const UpdateStream& o) const { return !(*this == o); }
};

// Bytes of the longest encoded UpdateId.
constexpr int MaxUidBytes = 24;

struct UpdateId {
  int node = 0;
  int epoch = 0;
  int seq = 0;

  UpdateId() = default;
  UpdateId(int n, int e, int s) : node(n), epoch(e), seq(s) {}
  UpdateStream stream() const { return UpdateStream{node, epoch}; }
  bool isNull() const { return node == 0 && epoch == 0 && seq == 0; }

  int getSize() const;
  char* dump(char* p) const;
  // On failure the fields not yet decoded are 0.
  const char* load(const char* p, const char* end);
  // The encoded id as lowercase hex, two digits a byte.
  std::string uidString() const;
  // The reverse of uidString; 0, or 22 for bad text or bytes left over.
  int parse(const std::string& text);
  std::string toString() const;
  bool operator==(const UpdateId& o) const {
    return node == o.node && epoch == o.epoch && seq == o.seq;
  }
  bool operator!=(const UpdateId& o) const { return !(*this == o); }
};

// Highest applied seq per stream.
class UpdateList : public std::map<UpdateStream, int> {
 public:
  std::string toString() const;
};

std::ostream& operator<<(std::ostream& os, const UpdateStream& s);
std::ostream& operator<<(std::ostream& os, const UpdateId& u);
std::ostream& operator<<(std::ostream& os, const UpdateList& l);

// ---- Update payloads ----

struct ValueUpdate : public UpdatePayload {
  std::string name;
  std::string value;

  ValueUpdate() = default;
  ValueUpdate(const std::string& n, const std::string& v) : name(n), value(v) {}
  UpdatePayload* clone() const override { return new (std::nothrow) ValueUpdate(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  const char* load(const char* p, const char* end) override;
  void print(std::ostream& os) const override;
  bool operator==(const ValueUpdate& o) const { return name == o.name && value == o.value; }
};

struct ValueDeletion : public UpdatePayload {
  std::string name;

  ValueDeletion() = default;
  explicit ValueDeletion(const std::string& n) : name(n) {}
  UpdatePayload* clone() const override { return new (std::nothrow) ValueDeletion(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  const char* load(const char* p, const char* end) override;
  void print(std::ostream& os) const override;
  bool operator==(const ValueDeletion& o) const { return name == o.name; }
};

struct FileUpdate : public UpdatePayload {
  std::string name;
  int fileId = 0;
  int extra = 0;  // carried, not kept by the committed state
  unsigned int crc = 0;

  FileUpdate() = default;
  FileUpdate(const std::string& n, int id, int x, unsigned int c)
      : name(n), fileId(id), extra(x), crc(c) {}
  UpdatePayload* clone() const override { return new (std::nothrow) FileUpdate(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  const char* load(const char* p, const char* end) override;
  // Leaves the stream in hexadecimal.
  void print(std::ostream& os) const override;
  bool operator==(const FileUpdate& o) const {
    return name == o.name && fileId == o.fileId && extra == o.extra && crc == o.crc;
  }
};

struct FileDeletion : public UpdatePayload {
  std::string name;
  int fileId = 0;

  FileDeletion() = default;
  FileDeletion(const std::string& n, int id) : name(n), fileId(id) {}
  UpdatePayload* clone() const override { return new (std::nothrow) FileDeletion(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  const char* load(const char* p, const char* end) override;
  void print(std::ostream& os) const override;
  bool operator==(const FileDeletion& o) const { return name == o.name && fileId == o.fileId; }
};

struct LeaderUpdate : public UpdatePayload {
  int leaderId = 0;
  int leaseMS = 0;

  LeaderUpdate() = default;
  LeaderUpdate(int id, int lease) : leaderId(id), leaseMS(lease) {}
  UpdatePayload* clone() const override { return new (std::nothrow) LeaderUpdate(*this); }
  int getSize() const override;
  char* dump(char* p) const override;
  const char* load(const char* p, const char* end) override;
  void print(std::ostream& os) const override;
  bool operator==(const LeaderUpdate& o) const {
    return leaderId == o.leaderId && leaseMS == o.leaseMS;
  }
};

// ---- Proposed update ----

class ProposedUpdate {
 public:
  // Fixed underlying type: a decoded type byte may hold any value 0..255.
  enum UpdateType : int {
    noUpdate = 0,
    noopUpdate = 1,
    valueUpdate = 2,
    valueDeletion = 3,
    fileUpdate = 4,
    fileDeletion = 5,
    configUpdate = 6,
    leaderUpdate = 7,
  };

  UpdateId uid;
  UpdateType type = noUpdate;
  int version = -1;
  std::vector<int> listn;  // listener positions

  ProposedUpdate() = default;
  explicit ProposedUpdate(const UpdateId& u);
  ProposedUpdate(const UpdateId& u, const ValueUpdate& p, int ver);
  ProposedUpdate(const UpdateId& u, const ValueDeletion& p);
  ProposedUpdate(const UpdateId& u, const FileUpdate& p, int ver);
  ProposedUpdate(const UpdateId& u, const FileDeletion& p);
  ProposedUpdate(const UpdateId& u, const ConfigUpdate& p);
  ProposedUpdate(const UpdateId& u, const LeaderUpdate& p, int ver);
  ProposedUpdate(const ProposedUpdate& o);
  ProposedUpdate& operator=(const ProposedUpdate& o);
  ProposedUpdate(ProposedUpdate&&) = default;
  ProposedUpdate& operator=(ProposedUpdate&&) = default;
  ~ProposedUpdate() = default;

  UpdateType updateType() const { return type; }
  // Back to the empty update: null uid, type 0, version -1, no payload.
  void reset();

  // The payload when type says so (and it was decoded), else null.
  const ValueUpdate* getValueUpdate() const;
  const ValueDeletion* getValueDeletion() const;
  const FileUpdate* getFileUpdate() const;
  const FileDeletion* getFileDeletion() const;
  const ConfigUpdate* getConfigUpdate() const;
  const LeaderUpdate* getLeaderUpdate() const;

  int getSize() const;
  char* dump(char* p) const;
  // Starts with reset(); may leave a partial payload on failure.
  const char* load(const char* p, const char* end);
  std::string toString() const;
  static const char* UpdateName(UpdateType t);

  // Compares uid and type only.
  bool operator==(const ProposedUpdate& o) const { return uid == o.uid && type == o.type; }
  bool operator!=(const ProposedUpdate& o) const { return !(*this == o); }

 private:
  std::unique_ptr<UpdatePayload> payload_;
};

std::ostream& operator<<(std::ostream& os, const ProposedUpdate& u);

// ---- Values, files and object lists ----

struct ValueVersion {
  int version = 0;
  std::string value;

  bool operator==(const ValueVersion& o) const { return version == o.version && value == o.value; }
  bool operator!=(const ValueVersion& o) const { return !(*this == o); }
};

class ValueList : public std::map<std::string, ValueVersion> {
 public:
  int getSize() const;
  char* dump(char* p) const;
  // Keeps the first of duplicate names.
  const char* load(const char* p, const char* end);
  std::string toString() const;
};

struct FileVersion {
  int version = 0;
  UpdateId uid;
  unsigned int crc = 0;

  FileVersion() = default;
  FileVersion(int v, const UpdateId& u, unsigned int c) : version(v), uid(u), crc(c) {}
  bool operator==(const FileVersion& o) const {
    return version == o.version && uid == o.uid && crc == o.crc;
  }
  bool operator!=(const FileVersion& o) const { return !(*this == o); }
};

class FileList : public std::map<int, FileVersion> {
 public:
  int getSize() const;
  char* dump(char* p) const;
  // Keeps the first of duplicate ids.
  const char* load(const char* p, const char* end);
  std::string toString() const;
};

struct FileItem {
  std::string name;
  std::string extraStr;  // carried as it stands
  int extraInt = 0;      // carried as it stands

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const FileItem& o) const {
    return name == o.name && extraStr == o.extraStr && extraInt == o.extraInt;
  }
  bool operator!=(const FileItem& o) const { return !(*this == o); }
};

class FileIdMap : public std::map<int, FileItem> {
 public:
  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  // The name filed under fileId, or "".
  std::string getFileName(int fileId) const;
  std::string toString() const;
};

struct ZelObjectInfo {
  enum { fileObject = 1, valueObject = 2 };
  int type = 0;
  int version = -1;
  std::string name;
  std::string value;  // values only

  ZelObjectInfo() = default;
  ZelObjectInfo(int t, int v, const std::string& n, const std::string& val)
      : type(t), version(v), name(n), value(val) {}
  // Counts value for every type but 1; dump and load carry it for type 2 only.
  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  bool operator==(const ZelObjectInfo& o) const {
    return type == o.type && version == o.version && name == o.name && value == o.value;
  }
  bool operator!=(const ZelObjectInfo& o) const { return !(*this == o); }
};

class ZelObjectInfoList : public std::vector<ZelObjectInfo> {
 public:
  void add(const ZelObjectInfo& o) { push_back(o); }
  void cleanupList() { clear(); }
  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  std::string toString() const;
};

struct ZelFxFerKey {
  int objId = 0;
  int fileId = 0;

  bool operator<(const ZelFxFerKey& o) const {
    return objId != o.objId ? objId < o.objId : fileId < o.fileId;
  }
  bool operator==(const ZelFxFerKey& o) const { return objId == o.objId && fileId == o.fileId; }
};

// Versions of file transfers, shared by threads under ZELLock slot 4.
class ZelFxFerMap {
 public:
  // 1 if an entry with that key was replaced, 0 if one was inserted.
  int add(const ZelFxFerKey& key, const FileVersion& fv);
  // 1 and *zelFxFerInfoP filled when the key is present, else 0.
  int getFxFerInfo(const ZelFxFerKey& key, FileVersion* zelFxFerInfoP);

 private:
  std::map<ZelFxFerKey, FileVersion> map_;
};

std::ostream& operator<<(std::ostream& os, const ValueList& l);
std::ostream& operator<<(std::ostream& os, const FileList& l);
std::ostream& operator<<(std::ostream& os, const FileIdMap& m);
std::ostream& operator<<(std::ostream& os, const ZelObjectInfo& o);
std::ostream& operator<<(std::ostream& os, const ZelObjectInfoList& l);
std::ostream& operator<<(std::ostream& os, const ZelFxFerKey& k);

// ---- Committed state ----

// At most this many streams are kept in the update list.
constexpr int kMaxUpdateStreams = 20;

class CommittedState {
 public:
  PaxosConfig config;
  int cfgVersion = 0;
  int leaderId = -1;
  int leaderLeaseMS = 0;
  int leaderVersion = 0;
  int updateHorizon = -1;
  UpdateList updateList;
  ValueList valueList;
  int maxDeletedValueVersion = 0;
  FileList fileList;
  int maxDeletedFileVersion = 0;

  // Applies one update; a duplicate (by uid) is ignored. Version regressions
  // and unknown types are assertions.
  void apply(const ProposedUpdate& u);
  // 0 not applied; 1 applied per its listed stream; 2 below the horizon.
  int includes(const UpdateId& uid) const;
  // Records uid as applied, evicting the lowest stream beyond 20.
  void addUpdate(const UpdateId& uid);
  // Current version of the object u changes.
  int getOldVersion(const ProposedUpdate& u) const;
  // Largest epoch of node's streams, or 0.
  int getLatestEpoch(int node) const;
  // Whether every update applied here is applied in other.
  bool operator<=(const CommittedState& other) const;
  bool operator==(const CommittedState& o) const;
  bool operator!=(const CommittedState& o) const { return !(*this == o); }
  // Assert on inconsistency.
  void verifyIsPrefixOf(const CommittedState& other) const;
  void verifyIsEqual(const CommittedState& other) const;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  std::string toString() const;
  std::string toShortString() const;
};

// Builds the listing of files (by id) then values (by name); 0, or 22 when a
// file id has no name.
int fillZelObjectInfoList(ZelObjectInfoList* zeloilP, const CommittedState& state,
                          const FileIdMap& fileIdMap);

// ---- Disk blocks and the paxos state file ----

struct BallotNumber {
  int first = 0;
  int second = 0;

  BallotNumber() = default;
  BallotNumber(int a, int b) : first(a), second(b) {}
  bool operator<(const BallotNumber& o) const {
    return first != o.first ? first < o.first : second < o.second;
  }
  bool operator>(const BallotNumber& o) const { return o < *this; }
  bool operator==(const BallotNumber& o) const { return first == o.first && second == o.second; }
  bool operator!=(const BallotNumber& o) const { return !(*this == o); }
  std::string toString() const;
};

std::ostream& operator<<(std::ostream& os, const BallotNumber& b);

class PaxosDblockSummary;
struct PaxosHeader;

class Dblock {
 public:
  int seq = 0;
  CommittedState committed;
  BallotNumber mbal;
  BallotNumber bal;
  ProposedUpdate inp;
  int leaderChallengeVersion = 0;

  // Strictly newer by seq, mbal, bal, then leaderChallengeVersion.
  bool moreRecentThan(const Dblock& o) const;
  void reset(int newSeq, const CommittedState& c);
  void reset(const PaxosDblockSummary& s);
  // Copies the summary, but keeps only the first half of its mbal.
  void replace(const PaxosDblockSummary& s);
  void applyInp();

  int getSize() const;
  char* dump(char* p) const;
  // Fails on an input presence value above 1.
  const char* load(const char* p, const char* end);
  // The encoding without its committed state, which comes last: messages that
  // carry several blocks of one state send that state once. loadHead leaves
  // committed as it was.
  int getHeadSize() const;
  char* dumpHead(char* p) const;
  const char* loadHead(const char* p, const char* end);
  std::string toString() const;
  bool operator==(const Dblock& o) const;
  bool operator!=(const Dblock& o) const { return !(*this == o); }
};

std::ostream& operator<<(std::ostream& os, const Dblock& b);

class PaxosDblockSummary {
 public:
  int seq = -1;
  CommittedState committed;
  BallotNumber mbal;
  BallotNumber bal;
  ProposedUpdate inp;
  int leaderChallengeVersion = 0;

  void reset();
  // Combines a block read from disk diskId.
  void add(const Dblock& b, int diskId);
  void merge(const PaxosDblockSummary& s);

  // A summary with seq -1 cannot be encoded (assertion).
  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
  std::string toString() const;
  bool operator==(const PaxosDblockSummary& o) const;
  bool operator!=(const PaxosDblockSummary& o) const { return !(*this == o); }
};

// Body of the paxos state file.
class PaxosFileData {
 public:
  int epoch = 0;
  int slotAssignmentVersion = 0;
  PaxosDblockSummary summary;

  // slotAssignmentVersion is present when fmtVersion > 0.
  int getSize(int fmtVersion) const;
  char* dump(char* p, int fmtVersion) const;
  const char* load(const char* p, const char* end, int fmtVersion);
  // Reading and writing the state file: zel/zelpaxosfile.h.
  std::string toString() const;
  std::string toShortString() const;
  bool operator==(const PaxosFileData& o) const {
    return epoch == o.epoch && slotAssignmentVersion == o.slotAssignmentVersion &&
           summary == o.summary;
  }
  bool operator!=(const PaxosFileData& o) const { return !(*this == o); }
};

#endif  // ZEL_PAXOSDATA_H
