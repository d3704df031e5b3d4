#include "core/dir_info.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

DirInfo::~DirInfo() {
    close();
}

bool DirInfo::open(const char* path) {
    close();
    fd = TEMP_FAILURE_RETRY(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return is_open();
}

const dirent64* DirInfo::next() {
    if (bytes_left <= 0 && !fill()) return nullptr;
    const dirent64* entry = current;
    current = reinterpret_cast<const dirent64*>(reinterpret_cast<const char*>(entry) +
                                                entry->d_reclen);
    bytes_left -= entry->d_reclen;
    return entry;
}

bool DirInfo::fill() {
    bytes_left = TEMP_FAILURE_RETRY(syscall(SYS_getdents64, fd, buffer, sizeof(buffer)));
    current = reinterpret_cast<const dirent64*>(buffer);
    return bytes_left > 0;
}

void DirInfo::rewind() {
    lseek(fd, 0, SEEK_SET);
    bytes_left = 0;
}

void DirInfo::close() {
    if (!is_open()) return;
    ::close(fd);
    fd = -1;
    bytes_left = 0;
    current = nullptr;
}
