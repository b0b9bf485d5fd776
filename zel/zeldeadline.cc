#include "zel/zeldeadline.h"

#include <stdlib.h>

#include "platform/pclock.h"

bool ParseDeadlineSeconds(const char* text, long long* ms) {
  if (text == nullptr || *text < '0' || *text > '9') return false;  // no sign, space, "inf"
  char* end = nullptr;
  double secs = strtod(text, &end);
  if (end == text || *end != '\0' || !(secs > 0) || secs > 1e7) return false;
  long long v = static_cast<long long>(secs * 1000);
  *ms = v > 0 ? v : 1;
  return true;
}

std::string ApplyDeadlineFromEnv() {
  const char* text = getenv("ZEL_DEADLINE");
  if (text == nullptr || *text == '\0') return std::string();
  long long ms = 0;
  if (!ParseDeadlineSeconds(text, &ms)) {
    return "invalid value '" + std::string(text) +
           "' for ZEL_DEADLINE (seconds above 0, a fraction allowed)";
  }
  PlatSetCommandDeadline(PlatNowMs() + ms);
  return std::string();
}
