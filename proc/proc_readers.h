#pragma once

#include <dirent.h>

#include <cstdint>
#include <string>

#include "proc/proc.h"

// Readers of the kernel's files about one task. A task directory is "/proc/<pid>" or
// "/proc/<pid>/task/<tid>", without a trailing slash. A task that has vanished is the normal case:
// its files read as empty text, and only debug_gate makes that a log line.

// Samples a task into `record` from the directory's "stat", "cgroup" and "schedstat" files, and
// keeps its stuck time: `count` grows by `interval`, the ms between two scans, while state, CPU
// time and run count stand still; any change sets it to 0 and clears `reported`. An empty or
// unparsable stat file leaves the record as it was.
void read_stat(proc* record, const std::string& task_dir, int64_t interval);

// A new record of one sample, for the ids and the state; its ids are unknown when that failed.
proc sample_once(const std::string& task_dir);

// The task's name from its "comm" file, empty when unreadable.
std::string get_comm(const std::string& task_dir);

// The first argument, up to its first blank, of the command line of process `pid` (decimal text,
// an entry of /proc). Empty for kernel threads, for zombies and when unreadable.
std::string get_proc_name(const std::string& pid);

// Whether a directory entry of /proc or of a task directory names a task: it begins with a digit
// and is a directory. On acceptance `path` holds "/proc/" and the entry's name; that is right for a
// thread too, since the kernel resolves /proc/<tid>. `path` is untouched where name or type already
// tell that it is none; a type that the kernel leaves open is looked up under that path.
bool get_valid_tid_dir(const dirent64* entry, std::string* path);

// "/proc/<pid>/task/<tid>", the directory of one thread.
std::string thread_dir(int pid, int tid);

// Reads the whole file `name`, such as "/stat", of a task directory, symbolic links not followed;
// empty text when that fails.
std::string read_task_file(const std::string& task_dir, const char* name);

// Erases everything from the first blank, tab, carriage return, line feed or NUL on.
void cut_at_separator(std::string* text);

// Whether a process of this name forks the managed processes.
bool is_zygote(const std::string& process_name);

// The last "/"-separated piece of a program's path. A name without two pieces, such as "/init" or
// "init", is returned as it stands.
std::string program_base_name(const std::string& path);
