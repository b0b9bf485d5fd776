// Definitions of the process-wide variables and the one reset of all process
// state. Each variable's initial value is written once, in the table below,
// which both defines the variable and resets it.
#include "zel/zelglobals.h"

#include "platform/pclock.h"
#include "platform/pfile.h"
#include "platform/psock.h"
#include "zel/cachedcomm.h"
#include "zel/kxcomm.h"
#include "zel/kxsec.h"
#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zellock.h"
#include "zel/zelutils.h"
#include "zel/zelxfer.h"

// (type, name, initial value)
#define ZEL_GLOBALS(X)                                 \
  X(int, traceLevel, 0)                                \
  X(unsigned char, traceFlags, 0)                      \
  X(int, platformTraceFd, -1)                          \
  X(int, platformTraceLevel, 0)                        \
  X(bool, zelDebugAsserts, false)                      \
  X(int, zelPort, -1)                                  \
  X(unsigned int, defaultPort, kDefaultZelPort)        \
  X(int, zelNodeId, -1)                                \
  X(std::string, zelAddr, std::string())               \
  X(Node, zelMyNode, Node())                           \
  X(bool, isTrovInstall, true)                         \
  X(bool, isTestInstall, false)                        \
  X(int, zelTraceBoost, 0)                             \
  X(bool, zelStdoutIsData, false)                      \
  X(std::string, zelBaseDir, std::string())            \
  X(std::string, zelCertFilePath, std::string())       \
  X(std::string, zelKeyFilePath, std::string())        \
  X(std::string, zelCachedDir, std::string())          \
  X(std::string, zelCommittedDir, std::string())       \
  X(std::string, zelNodeFilePath, std::string())       \
  X(std::string, zelDiskFilePath, std::string())       \
  X(std::string, zelPaxosLFDServerPath, std::string()) \
  X(std::string, zelPaxosLFDClientPath, std::string()) \
  X(unsigned long long, zelClusterId, 0)               \
  X(int, cfgVersion, 0)                                \
  X(int, nlVersion, 0)                                 \
  X(std::vector<int>, serverIds, std::vector<int>())   \
  X(int, maxRetryTime, 16)                             \
  X(bool, useCachedConnections, true)                  \
  X(bool, zelSecReady, false)                          \
  X(const char*, zelCipherListP, nullptr)              \
  X(int, encryptionFIPS1402ModeZEL, 1)                 \
  X(int, EncryptionNistComplianceZEL, 3)               \
  X(std::string, pgmName, std::string())

#define ZEL_DEFINE(type, name, init) type name = init;
ZEL_GLOBALS(ZEL_DEFINE)
#undef ZEL_DEFINE

int traceClassLevels[kTraceClasses];
CachedConnectionMap outConnectionCache(false);
CachedConnectionMap inConnectionCache(true);
SecTransport* secImpP = nullptr;  // owned; ShutdownSecurity deletes it

void ResetProcessState() {
  // Units first: some of them reset public variables on their way out.
  ShutdownSecurity();
  ResetZELIOForTest();
  outConnectionCache.clear();
  inConnectionCache.clear();
  for (CachedConnectionMap* c : {&outConnectionCache, &inConnectionCache}) {
    c->nAddGood = c->nAddBad = c->nGetGood = c->nGetBad = c->nGetNotFound = 0;
  }
  KxSetTransferTimeouts(DefaultSendTimeoutMS, DefaultRecvTimeoutMS);
  SetKxSecurity(KxSecurity());
  KxSetForwardStreams(nullptr, nullptr);
  SetSimulateNetworkDisconnectAddrs(false, CommAddr(), CommAddr());
  SetServerConnectFnForTest(nullptr);
  SetClientCacheFnForTest(nullptr);
  ZELLockInit();
  ClearErrorCause();
  PlatSetFsOps(nullptr);
  PlatSetSleepFn(nullptr);
  PlatSetNowFn(nullptr);
  PlatSetCommandDeadline(0);
  SetXferProgress(nullptr);
  PlatSetConnectFn(nullptr);

#define ZEL_RESET(type, name, init) name = init;
  ZEL_GLOBALS(ZEL_RESET)
#undef ZEL_RESET
  for (int& l : traceClassLevels) l = 0;
}
