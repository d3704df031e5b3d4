#pragma once

#include <dirent.h>

#include <cstdint>

// Reader of one directory at a time with the raw getdents64 call: the walk of /proc runs for ever,
// so it goes without the heap buffer of a directory stream.
class DirInfo {
  public:
    DirInfo() = default;
    ~DirInfo();
    DirInfo(const DirInfo&) = delete;
    DirInfo& operator=(const DirInfo&) = delete;

    // Opens the directory, after closing one that is open. False when that fails. Interrupted opens
    // and reads are repeated.
    bool open(const char* path);

    bool is_open() const { return fd != -1; }

    // The next entry, valid until the call after it; null at the end of the directory and on a read
    // error.
    const dirent64* next();

    // Goes back to the first entry of an open directory.
    void rewind();

    // Closes the directory; nothing happens when none is open.
    void close();

  private:
    bool fill();

    int32_t fd = -1;
    int64_t bytes_left = 0;             // in the buffer, from `current` on
    const dirent64* current = nullptr;  // within the buffer
    alignas(dirent64) char buffer[4200] = {};
};
