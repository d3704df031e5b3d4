#pragma once

// Size of the buffer that exec_command() fills.
constexpr int kCommandOutputSize = 1024;

// Runs `command` by the shell and reads the start of its output into `output`, kCommandOutputSize
// bytes; what goes beyond 1023 bytes is lost. No NUL is put after a shorter output, so the caller
// passes a zeroed buffer. Does nothing when either pointer is null; a command that cannot be
// started leaves the empty string.
void exec_command(const char* command, char* output);
