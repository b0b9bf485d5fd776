// Message types with their names and need for authentication, the body limit,
// and the texts of error codes.
#ifndef ZEL_ZELMSG_H
#define ZEL_ZELMSG_H

// A body may hold at most this many bytes; exactly this many is accepted.
constexpr unsigned int ZEL_MAX_BODY_LENGTH = 8388608;
// The header carries code = type + kMsgCodeBias.
constexpr int kMsgCodeBias = 512;

enum MsgType {
  MSG_TYPE_REFRESH = -3,
  MSG_TYPE_RECOVER = -2,
  MSG_TYPE_FAILED = -1,
  MSG_TYPE_OK = 0,
  MSG_TYPE_STATUS = 1,
  MSG_TYPE_DEBUG = 2,
  MSG_TYPE_DUMP = 3,
  MSG_TYPE_INIT = 4,
  MSG_TYPE_VGET = 5,
  MSG_TYPE_VPUT = 6,
  MSG_TYPE_VDEL = 7,
  MSG_TYPE_FGET = 8,
  MSG_TYPE_FPUT = 9,
  MSG_TYPE_FDEL = 10,
  MSG_TYPE_CONFIG = 11,
  MSG_TYPE_PXINIT = 12,
  MSG_TYPE_PXREAD = 13,
  MSG_TYPE_PXWRITE = 14,
  MSG_TYPE_PXRDWR = 15,
  MSG_TYPE_FXFER = 16,
  MSG_TYPE_FCRC = 17,
  MSG_TYPE_FDATA = 18,
  MSG_TYPE_AUTH = 19,
  MSG_TYPE_DISCOVER = 20,
  MSG_TYPE_QUIT = 31,
  MSG_TYPE_FGET_PRIV = 32,
  REPLY_TYPE_SEQ_COMMIT = 50,
  REPLY_TYPE_SEQ_COMMIT_ERROR = 51,
  REPLY_TYPE_SEQ_COMMIT_FGET = 52,
  REPLY_TYPE_SEQ_COMMIT_FLIST = 53,
  REPLY_TYPE_UID = 54,
  REPLY_TYPE_UID_FPUT = 55,
  REPLY_TYPE_PXREAD = 56,
  REPLY_TYPE_PXWRITE = 57,
  REPLY_TYPE_PXRDWR = 58,
  REPLY_TYPE_STDOUT = 59,
  REPLY_TYPE_STDERR = 60,
  REPLY_TYPE_FAILED_NODE_VER = 61,
  REPLY_TYPE_DISCOVER = 62,
  REPLY_TYPE_EOR = 63,
  REPLY_TYPE_PXRDWR_FXFER = 64,
};

// The type's name; "unknown" for a type not in the table. Never null.
const char* msgName(int type);
// Whether the first message of a connection with this type needs authentication.
bool msgAuthRequired(int type);
// Below 128 (taken unsigned) the system's text, 128..157 the repository's texts,
// anything else "Invalid error number".
const char* errcodeToString(int code);

#endif  // ZEL_ZELMSG_H
