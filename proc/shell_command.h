#pragma once

#include <functional>
#include <string>

// Commands run by the shell, in shell mode: the platform's ps and grep.

// Size of the buffer that exec_command() fills, and of the one for a line.
constexpr int kCommandOutputSize = 1024;

// Runs `command` and reads the start of its output into `output`, kCommandOutputSize bytes; what
// goes beyond 1023 bytes is lost. No NUL is put after a shorter output, so the caller passes a
// zeroed buffer. Does nothing when either pointer is null; a command that cannot be started leaves
// the empty string.
void exec_command(const char* command, char* output);

// Runs `command` and hands each line of its output to `take_line`, its line feed included; a line
// of more than 1023 bytes comes in pieces of that size. False, for the caller to log, when the
// command cannot be started. `debug` gates the log line about a failed close.
bool read_lines(const std::string& command, bool debug,
                const std::function<void(const char* line)>& take_line);
