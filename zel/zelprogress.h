// The progress line of kxzel's fput and fget: files of 8 MiB and more show bytes,
// percentage and rate on standard error, rewritten in place, when standard error
// is a terminal or ZEL_PROGRESS=1 (ZEL_PROGRESS=0 turns it off on a terminal too).
#ifndef ZEL_ZELPROGRESS_H
#define ZEL_ZELPROGRESS_H

#include <string>

constexpr long long kProgressMinBytes = 8LL << 20;

// Whether to show progress, from ZEL_PROGRESS and whether stderr is a terminal.
bool ProgressWanted(const char* env, bool stderrIsTerminal);

// The line's text: "fput: 4194304 of 8388608 bytes (50%), 12.5 MiB/s".
std::string ProgressText(const char* what, long long done, long long total, long long elapsedMs);

// Installs the transfer hook for the subcommand what ("fput" or "fget") when
// progress is wanted.
void StartProgress(const char* what);

#endif  // ZEL_ZELPROGRESS_H
