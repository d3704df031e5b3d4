#include "sim/open_files.h"

#include <android-base/strings.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/wait.h>

#include <set>

#include "sim/play.h"
#include "sim/running_play.h"

using android::base::StartsWith;

std::map<int, OpenFile> open_files;

namespace {

std::set<int> inherited_descriptors;

// What is in the directory, each name behind its type; "." and ".." alone where it is none.
std::vector<std::string> entries_of(const std::string& directory) {
    std::vector<std::string> entries = {"4.", "4.."};
    auto below = device->files.lower_bound(directory);
    for (; below != device->files.end() && StartsWith(below->first, directory); ++below) {
        const auto [name, rest] = cut(below->first.substr(directory.size()), "/");
        if (entries.back().substr(1) == name) continue;
        const char* type = device->settings["untyped"] != 0 ? "0" : rest.empty() ? "8" : "4";
        entries.push_back(type + name);
    }
    return entries;
}

std::set<int> open_descriptors() {
    std::set<int> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory)) descriptors.insert(atoi(entry->d_name));
    descriptors.erase(dirfd(directory));
    closedir(directory);
    return descriptors;
}

}  // namespace

bool is_played(const std::string& path) {
    return device != nullptr && !StartsWith(path, "/proc/self/") &&
           (StartsWith(path, "/proc/") || StartsWith(path, "/vendor/") || path == "/dev/kmsg");
}

int open_played(const std::string& path, int flags) {
    const std::lock_guard lock(play_mutex);
    if (android::base::EndsWith(path, "/cmdline")) device->now_ms += device->settings["cost"];
    if (fails("open " + path)) return -1;
    const bool is_directory = (flags & O_DIRECTORY) != 0;
    const bool is_read = !is_directory && (flags & O_ACCMODE) == O_RDONLY;
    REQUIRE((flags & O_CLOEXEC) != 0);
    REQUIRE(!is_read || (flags & O_NOFOLLOW) != 0);
    OpenFile file = {path, "", {}};
    if (is_directory) file.entries = entries_of(path);
    const bool exists = is_directory ? file.entries.size() > 2 : device->files.count(path) != 0;
    if (!exists) {
        errno = ENOENT;
        return -1;
    }
    if (is_read) file.content = device->files[path];
    const int fd = eventfd(0, EFD_CLOEXEC);  // the cheapest there is: nothing but a number
    REQUIRE(fd >= 0);
    open_files[fd] = file;
    return fd;
}

long read_directory(int fd, char* buffer, size_t size) {
    const std::lock_guard lock(play_mutex);
    OpenFile& directory = open_files[fd];
    if (fails("getdents " + directory.path)) return -1;
    size_t used = 0;
    auto entry = directory.entries.begin();
    for (; entry != directory.entries.end(); ++entry) {
        const size_t length = (offsetof(dirent64, d_name) + entry->size() + 7) & ~size_t{7};
        if (used + length > size) break;
        auto* record = reinterpret_cast<dirent64*>(buffer + used);
        record->d_reclen = length;
        record->d_type = entry->front() - '0';
        strcpy(record->d_name, entry->c_str() + 1);
        used += length;
    }
    directory.entries.erase(directory.entries.begin(), entry);
    return static_cast<long>(used);
}

void remember_open_descriptors() {
    inherited_descriptors = open_descriptors();
}

std::string left_open() {
    const auto is_at_rest = [] {
        for (const auto& [fd, file] : open_files) {
            if (file.path == kPerTaskFile) return false;
        }
        return true;
    };
    await_worker(is_at_rest);
    const std::lock_guard lock(play_mutex);
    std::vector<std::string> left;
    for (const int fd : open_descriptors()) {
        if (inherited_descriptors.count(fd) != 0) continue;
        const auto file = open_files.find(fd);
        if (file == open_files.end()) {
            left.emplace_back("a descriptor");
        } else if (file->second.path != "/proc/") {  // which may wait for the first walk
            left.push_back(file->second.path);
        }
    }
    if (waitpid(-1, nullptr, WNOHANG) != -1) left.emplace_back("a child");
    return android::base::Join(left, ", ");
}

void await_worker(const std::function<bool()>& is_done) {
    for (int i = 0; i < 2000; ++i) {
        {
            const std::lock_guard lock(play_mutex);
            if (is_done()) return;
        }
        poll(nullptr, 0, 1);
    }
    fail("the worker thread has not written an id within 2 s");
}
