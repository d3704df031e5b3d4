#pragma once

#include <string>

// Erases everything from the first blank, tab, carriage return, line feed or NUL on.
void cut_at_separator(std::string* text);

// The last "/"-separated piece of a program's path. A name without two pieces, such as "/init" or
// "init", is returned as it stands.
std::string program_base_name(const std::string& path);

// Whether a process of this name forks the managed processes.
bool is_zygote(const std::string& process_name);
