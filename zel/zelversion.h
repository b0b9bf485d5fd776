// The release of the whole package, shared by every executable's --version.
#ifndef ZEL_ZELVERSION_H
#define ZEL_ZELVERSION_H

// The version text, "MAJOR.MINOR.PATCH", set once in the top-level CMakeLists.txt.
const char* ZelVersion();

// When argv[1] is "--version", prints "NAME VERSION" (NAME the base name of argv[0])
// on standard output and returns true; the caller then exits 0.
bool PrintVersionIfAsked(int argc, char** argv);

#endif  // ZEL_ZELVERSION_H
