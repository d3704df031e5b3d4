#pragma once

#include <dirent.h>

#include <string>

#include "proc/proc.h"

// The kernel's directories and files about one task. A task directory is "/proc/<pid>" or
// "/proc/<pid>/task/<tid>", without a trailing slash. A task that has vanished is the normal case:
// its files read as empty text, and only debug_gate makes that a log line.

// Whether a directory entry of /proc or of a task directory names a task: it begins with a digit
// and is a directory. On acceptance `path` holds "/proc/" and the entry's name; that is right for a
// thread too, since the kernel resolves /proc/<tid>. `path` is untouched where name or type already
// tell that it is none; a type that the kernel leaves open is looked up under that path.
bool get_valid_tid_dir(const dirent64* entry, std::string* path);

// "/proc/<pid>/task/<tid>", the directory of one thread.
std::string thread_dir(int pid, int tid);
std::string thread_dir(const proc& thread);

// Reads the whole file `name`, such as "/stat", of a task directory, symbolic links not followed;
// empty text when that fails.
std::string read_task_file(const std::string& task_dir, const char* name);

// The task's name from its "comm" file, empty when unreadable.
std::string get_comm(const std::string& task_dir);

// The first argument, up to its first blank, of the command line of process `pid` (decimal text,
// an entry of /proc). Empty for kernel threads, for zombies and when unreadable.
std::string get_proc_name(const std::string& pid);
