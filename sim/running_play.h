#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "sim/device.h"

// What a play and the calls in it share.

// The device in which the daemon runs; null outside of a play.
extern Device* device;

// Guards everything of a play: the daemon's worker thread makes calls, too.
extern std::recursive_mutex play_mutex;

// A file of the device that the daemon has open, under a descriptor that is nothing but a number.
struct OpenFile {
    std::string path;                  // or the command
    std::string content;               // still to be read
    std::vector<std::string> entries;  // of a directory: still to be read, each behind its type
};
extern std::map<int, OpenFile> open_files;

// A turn of the scan loop begins: one that takes too much real time ends the play.
void limit_turn();

// A descriptor of a file in memory.
int data_file(const std::string& content);

// Waits until the daemon's worker thread is at rest. One that takes too long ends the play.
void await_worker();
