// Repeats a scan of the daemon on the live /proc, what reads the same at the least, or a command.
// Prints the processor time (s) that one took, children included.
//
// usage: scan_bench CONFIG known|walk|shell|COMMAND scan|reader|bare RUNS
//
// CONFIG is the daemon's configuration; no task may count as hung by it. "known" aborts when the
// scan would have to look for a task.

#include <android-base/file.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/config_file.h"
#include "core/dir_info.h"
#include "core/proc_walk.h"
#include "modules/config.h"

namespace {

const char* config_file;
std::vector<std::string> opened_paths;  // of the scan whose floor is measured
thread_local bool recording = false;

void run(const std::string& mode) {
    Config& config = Config::get();
    if (mode == "known") {
        if (config.need_traverse()) abort();  // a task of the population is gone
    } else if (mode == "walk") {
        walk_proc();
    } else if (mode == "shell") {
        config.check_process_sh();
    } else {
        if (system(("exec " + mode + " >/dev/null").c_str()) != 0) abort();
    }
    config.scan_process({});
}

// What the daemon must do at the least, by its own directory and file readers.
void read_with_readers(const std::string& path) {
    static DirInfo directory;
    static std::string content;
    if (path.back() != '/') {
        android::base::ReadFileToString(path, &content, false);
    } else if (directory.open(path.c_str())) {
        while (directory.next() != nullptr) continue;
    }
}

// What the kernel must do at the least: open, read, close.
void read_bare(const std::string& path) {
    static char buffer[4200];
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (path.back() == '/') {
        while (syscall(SYS_getdents64, fd, buffer, sizeof(buffer)) > 0) continue;
    } else {
        [[maybe_unused]] const ssize_t length = read(fd, buffer, sizeof(buffer));
    }
    close(fd);
}

double processor_seconds() {
    double sum = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage;
        getrusage(who, &usage);
        sum += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    }
    return sum;
}

}  // namespace

// The C library's function, for this program and the libraries in it. Nothing here creates files.
extern "C" int open(const char* path, int flags, ...) {
    if (recording) opened_paths.push_back(path);
    if (strcmp(path, "/vendor/etc/tovrel.json") == 0) path = config_file;
    // The kernel's files of the I/O-wait list may be missing, and must not be changed.
    if (strncmp(path, "/proc/sys/", 10) == 0) path = "/dev/null";
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0));
}
extern "C" int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    config_file = argv[1];
    read_config_file(&Config::get());
    const std::string mode = argv[2], what = argv[3];
    run("walk");  // finds the tasks
    recording = what != "scan";
    if (recording) run(mode);
    recording = false;
    const auto read_path = what == "bare" ? read_bare : read_with_readers;
    const auto work = [&] {
        if (what == "scan") return run(mode);
        std::for_each(opened_paths.begin(), opened_paths.end(), read_path);
    };
    work();
    const int runs = atoi(argv[4]);
    const double before = processor_seconds();
    for (int i = 0; i < runs; ++i) work();
    printf("%.9f\n", (processor_seconds() - before) / runs);
}
