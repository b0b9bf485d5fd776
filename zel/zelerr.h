// Error codes. 0 is success; below 128 a system error number; 128 to 157 the
// repository's own codes (texts in errcodeToString); larger values are the
// client's internal codes. The front end maps them to exit statuses once.
#ifndef ZEL_ZELERR_H
#define ZEL_ZELERR_H

enum ZelErr {
  E_OK = 0,
  E_IO = 5,
  E_NOMEM = 12,
  E_INVAL = 22,
  E_FBIG = 27,
  E_RANGE = 34,

  E_ZEL_OK = 128,
  E_CONN_REJECTED = 129,
  E_BAD_ATTACH_LEN = 130,
  E_UNKNOWN_REQUEST = 131,
  E_NOT_SERVER = 132,
  E_NOT_PRIMARY = 133,
  E_NOT_SECONDARY = 134,
  E_SECONDARY_UNREACHABLE = 135,
  E_HOST_RESOLUTION = 136,
  E_NODEDATA_READ = 137,
  E_DRFS_READ = 138,
  E_DRFS_WRITE = 139,
  E_DRFS_FORMAT = 140,
  E_OBJECT_FORMAT = 141,
  E_OUT_OF_MEMORY = 142,
  E_CANT_CONNECT = 143,
  E_CONN_SHUTDOWN = 144,
  E_PORT_IN_USE = 145,
  E_INTERNAL = 146,
  E_DAEMON_CRASHED = 147,
  E_DAEMON_DISABLED = 148,
  E_REQUEST_FAILED = 149,
  E_NODE_INIT_FAILED = 150,
  E_DISK_INIT_FAILED = 151,
  E_NAME_NOT_FOUND = 152,
  E_VERSION_MISMATCH = 153,
  E_INVALID_VERSION = 154,
  E_VERSION_MATCH = 155,
  E_NODES_MISSING = 156,
  E_NO_LEADER = 157,

  E_BAD_PAXOS_DATA = 214,    // state data malformed or of another cluster
  E_CLUSTER_MISMATCH = 315,  // a connection's cluster id differs from the client's
  E_AUTH_FAILED = 703,       // no context for the key generation, or peer not authorized
  E_AUTH_PARAMS = 720,       // authentication parameters missing or wrong cipher list

  E_NO_SERVER = 801,             // no server answered
  E_ZEL_NODE_INIT = 802,         // exit status 150
  E_ZEL_DISK_INIT = 803,         // exit status 151
  E_ZEL_NOT_FOUND = 804,         // named value undefined
  E_ZEL_VERSION_MISMATCH = 805,  // exit status 153
  E_ZEL_VERSION_MATCH = 806,     // exit status 155
  E_ZEL_INVALID_VERSION = 807,   // exit status 154
  E_NO_QUORUM = 809,             // the new node set has no quorum
  E_XFER_FAILED = 810,           // file transfer: open, write or checksum failure
  E_NO_REPOSITORY = 811,         // repository or committed directory missing
  E_NODELIST_EMPTY = 812,        // local node list missing or empty
  E_LOCAL_FILE_MISSING = 813,    // local file to store does not exist
  E_BAD_MESSAGE = 818,           // body too long or not decodable
  E_TRY_OTHERS = 819,            // try the remaining servers of the round
};

#endif  // ZEL_ZELERR_H
