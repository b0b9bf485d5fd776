// Local file helpers shared by the state file storage and file transfer:
// temporary names, the two rename policies, path splitting and file size.
#ifndef ZEL_ZELFILES_H
#define ZEL_ZELFILES_H

#include <string>

// path + ".tmp." + process id + "." + thread id (32-bit unsigned), so two
// threads or processes never share a temporary file.
std::string tmpFileName(const std::string& path);

// Renames; on EEXIST removes the target and renames again. Returns 0 or the error number.
int renameReplaceIfTargetExists(const std::string& src, const std::string& target);
// The first copy wins: when the target is a regular file (or the rename reports
// EEXIST) the source is removed instead. Returns 0 or the error number.
int renameSkipIfTargetExists(const std::string& src, const std::string& target);

// The part after the last "/"; empty for a path without "/".
std::string ParseFileNameFromPath(const std::string& path);
// The POSIX directory name: "." for a bare name, "/" for a name under the root.
std::string ParseDirFromPath(const std::string& path);

// *fSize = -1, then the file's size. Returns 0 or the error number.
int getFileSize(const std::string& path, long long* fSize);

#endif  // ZEL_ZELFILES_H
