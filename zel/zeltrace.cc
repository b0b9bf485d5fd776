// Diagnostics: leveled trace to standard error and the platform trace, and
// assertions that report and abort.
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/ptrace.h"
#include "zel/paxosutils.h"

namespace {

constexpr size_t kTraceBuf = 1024;

void emit(int level, const char* text) {
  if (level <= traceLevel) {
    // One write keeps the line whole when several threads trace.
    char line[kTraceBuf + 1];
    size_t n = strlen(text);
    memcpy(line, text, n);
    line[n] = '\n';
    ssize_t rc = ::write(2, line, n + 1);
    (void)rc;
  }
  if (level <= traceFlags && traceFlags > 1 && platformTraceLevel > 3) {
    PlatTraceWrite(platformTraceFd, text);
  }
}

// Source paths name the unit, not the file: "zel/paxosdata", not "zel/paxosdata.cc".
std::string unitName(const char* file) {
  std::string s(file);
  size_t dot = s.rfind('.');
  size_t slash = s.rfind('/');
  if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) s.erase(dot);
  return s;
}

}  // namespace

void trace(int level, const char* fmt, ...) {
  if (level > traceLevel && level > traceFlags) return;
  char buf[kTraceBuf];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  emit(level, buf);
}

void assert_failed(const char* file, int line, const char* cond, const char* fmt, ...) {
  std::string unit = unitName(file);
  if (fmt != nullptr) {
    char detail[kTraceBuf];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(detail, sizeof detail, fmt, ap);
    va_end(ap);
    trace(0, "%s:%d: assertion '%s' failed\n%s\n", unit.c_str(), line, cond, detail);
  } else {
    trace(0, "%s:%d: assertion '%s' failed\n", unit.c_str(), line, cond);
  }
  abort();
}

std::string assert_msg(const char* fmt, ...) {
  char buf[kTraceBuf];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

void InitPaxosUtils() {
  long long v = 0;
  const char* dbg = getenv("ZEL_DEBUG");
  if (dbg != nullptr && ParseDecimal(dbg, INT_MIN, INT_MAX, &v)) traceLevel = static_cast<int>(v);
  const char* trc = getenv("ZEL_TRACE");
  if (trc != nullptr && ParseDecimal(trc, 0, 255, &v)) traceFlags = static_cast<unsigned char>(v);
}

namespace {

std::string errorCause;

}  // namespace

void SetErrorCause(const char* fmt, ...) {
  char buf[kTraceBuf];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  errorCause = buf;
  trace(4, "cause: %s", buf);
}

const std::string& ErrorCause() {
  return errorCause;
}

void ClearErrorCause() {
  errorCause.clear();
}
