// The optional platform trace device: opened write-only, asked for its level
// with a device control request, and written one line at a time.
#ifndef PLATFORM_PTRACE_H
#define PLATFORM_PTRACE_H

int PlatTraceOpen(const char* dev, int* fdOut);
// Device control request 10 fills the device's level.
int PlatTraceGetLevel(int fd, int* level);
void PlatTraceWrite(int fd, const char* text);
void PlatTraceClose(int fd);

#endif  // PLATFORM_PTRACE_H
