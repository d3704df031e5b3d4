#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

// The files of the device that the daemon has open, by descriptors that are nothing but numbers.

struct OpenFile {
    std::string path;                  // or the command
    std::string content;               // still to be read
    std::vector<std::string> entries;  // of a directory: still to be read, each behind its type
};

extern std::map<int, OpenFile> open_files;

// Where the daemon's worker thread writes.
constexpr char kPerTaskFile[] = "/proc/sys/hung_task_enh/per_task_detect_mode";

// Whether the device has the path's place, whether there is such a file or not.
bool is_played(const std::string& path);

// The calls open() and getdents64() on the device.
int open_played(const std::string& path, int flags);
long read_directory(int fd, char* buffer, size_t size);

// The daemon begins: what is open now is not its own.
void remember_open_descriptors();

// What the daemon has left open: paths, commands, other descriptors, and a child that it has not
// waited for. Waits until the worker thread is at rest.
std::string left_open();

// Gives the worker thread time; one that takes too long ends the play.
void await_worker(const std::function<bool()>& is_done);
