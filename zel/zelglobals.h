// Every process-wide variable of the library, in one place. They are defined
// (with their initial values) in zelglobals.cc, and ResetProcessState() puts all
// of them, and the unit-private state listed at the end, back to those values.
//
// Lower layers do not read the client's variables: what a connection or the
// state file storage needs (the cluster id) is passed to them.
#ifndef ZEL_ZELGLOBALS_H
#define ZEL_ZELGLOBALS_H

#include <string>
#include <vector>

class CachedConnectionMap;
class SecTransport;
struct Node;

// ---- Diagnostics ----
extern int traceLevel;            // messages of this level or lower go to stderr (ZEL_DEBUG)
extern unsigned char traceFlags;  // ... and to the platform trace (ZEL_TRACE)
extern int platformTraceFd;       // the platform trace device, -1 when closed
extern int platformTraceLevel;    // the platform trace's own level
constexpr int kTraceClasses = 64;
extern int traceClassLevels[kTraceClasses];  // per-class levels of the platform trace
extern bool zelDebugAsserts;                 // malformed messages assert instead of failing

// ---- Local store (InitZELIO) ----
extern int zelPort;                        // -1 until InitZELIO
extern unsigned int defaultPort;           // 1191; left out of the node-list file
extern int zelNodeId;                      // this machine's node id, -1 when not a quorum node
extern std::string zelAddr;                // address text of the local node
extern Node zelMyNode;                     // copy of the local node's entry
extern bool isTrovInstall;                 // product installation under /var/kolt
extern bool isTestInstall;                 // allows ZEL_BASE and /tmp/zel[.PORT]
extern int zelTraceBoost;                  // added to the ZEL_DEBUG level (the -V count)
extern bool zelStdoutIsData;               // stdout carries a file (fget): notes go to stderr
extern std::string zelBaseDir;             // the repository directory
extern std::string zelCertFilePath;        // this node's certificate
extern std::string zelKeyFilePath;         // this node's private key
extern std::string zelCachedDir;           // <base>/cached
extern std::string zelCommittedDir;        // <base>/committed
extern std::string zelNodeFilePath;        // <base>/zel.nodes
extern std::string zelDiskFilePath;        // <base>/zel.disks
extern std::string zelPaxosLFDServerPath;  // a server's state file
extern std::string zelPaxosLFDClientPath;  // the client's cached state file

// ---- Repository client ----
extern unsigned long long zelClusterId;  // this client's cluster id; 0 while unknown
extern int cfgVersion;                   // configuration version of the cached state
extern int nlVersion;                    // node-list version of the cached state
extern std::vector<int> serverIds;       // candidate servers in the order tried
extern int maxRetryTime;                 // back-off factor that ends a request (16)

// ---- Connections ----
extern CachedConnectionMap outConnectionCache;  // idle connections to servers
extern CachedConnectionMap inConnectionCache;   // idle connections from peers
extern bool useCachedConnections;               // whether connections are cached at all

// ---- Authentication ----
extern bool zelSecReady;                 // authentication is in force
extern const char* zelCipherListP;       // "AUTHONLY" once ready, else null
extern int encryptionFIPS1402ModeZEL;    // FIPS 140-2 mode switch (1)
extern int EncryptionNistComplianceZEL;  // NIST compliance mode as read (3)
extern SecTransport* secImpP;            // the one secure transport, once created

// ---- Front end ----
extern std::string pgmName;  // argv[0], for the usage text

// Unit-private state, reset by ResetProcessState() through each unit's own call:
// - zelstore.cc: the node list, disk map, node id maps, local addresses and the
//   interface seam (ResetZELIOForTest);
// - kxcomm.cc: transfer time-outs, the security seam, forwarding streams;
// - kxgreeting.cc: the simulated network cut;
// - kxsec.cc: the authorized-keys lists and key paths (ShutdownSecurity);
// - paxosclient.cc / paxosreply.cc: the connect and client-cache seams;
// - zellock.cc: the five lock slots;
// - zeltrace.cc: the recorded cause of the latest failure (ClearErrorCause);
// - platform/: the clock, sleep, connect and file-system seams.
// Kept for the life of the process: the listen wake-up socket pair, the loaded
// TLS library, and the shuffle seed.

// Back to the state of a freshly started process (tests).
void ResetProcessState();

#endif  // ZEL_ZELGLOBALS_H
