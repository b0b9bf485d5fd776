#include "zel/zelprogress.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "platform/pclock.h"
#include "zel/zelxfer.h"

namespace {

// Redraws at most this often; the last chunk always draws.
constexpr long long kRedrawMs = 200;

const char* progressWhat = "";
long long startMs = -1;
long long lastDrawMs = 0;
long long lastDone = 0;
size_t lastWidth = 0;

void Draw(long long done, long long total) {
  if (total < kProgressMinBytes) return;
  long long now = PlatNowMs();
  if (startMs < 0 || done < lastDone) {
    // A new transfer (or a retry starting over): a fresh line.
    if (startMs >= 0 && lastWidth > 0) fputc('\n', stderr);
    startMs = now;
    lastDrawMs = now;  // the first draw waits a little: a rate needs some time
    lastWidth = 0;
  }
  lastDone = done;
  bool last = done >= total;
  if (!last && now - lastDrawMs < kRedrawMs) return;
  lastDrawMs = now;
  std::string text = ProgressText(progressWhat, done, total, now - startMs);
  size_t width = text.size();
  // Blank out what a longer earlier text left on the line.
  if (width < lastWidth) text.append(lastWidth - width, ' ');
  lastWidth = width;
  fprintf(stderr, "\r%s%s", text.c_str(), last ? "\n" : "");
  fflush(stderr);
  if (last) startMs = -1;
}

}  // namespace

bool ProgressWanted(const char* env, bool stderrIsTerminal) {
  if (env != nullptr && strcmp(env, "1") == 0) return true;
  if (env != nullptr && strcmp(env, "0") == 0) return false;
  return stderrIsTerminal;
}

std::string ProgressText(const char* what, long long done, long long total, long long elapsedMs) {
  int pct = total > 0 ? static_cast<int>(done * 100 / total) : 100;
  double secs = static_cast<double>(elapsedMs > 0 ? elapsedMs : 1) / 1000.0;
  double rate = static_cast<double>(done) / (1024.0 * 1024.0) / secs;
  char buf[160];
  snprintf(buf, sizeof buf, "%s: %lld of %lld bytes (%d%%), %.1f MiB/s", what, done, total, pct,
           rate);
  return buf;
}

void StartProgress(const char* what) {
  if (!ProgressWanted(getenv("ZEL_PROGRESS"), isatty(STDERR_FILENO) == 1)) return;
  progressWhat = what;
  startMs = -1;
  SetXferProgress(Draw);
}
