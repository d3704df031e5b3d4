// Runs a scan of the daemon on the live /proc, or what it is compared with, once for each line of
// standard input, and prints the processor time (s) of that run, children included.
//
// usage: scan_bench CONFIG walk|known|shell|COMMAND [bare]
//
// CONFIG is the daemon's configuration; no task may count as hung by it. "known" aborts when the
// scan would have to look for a task. "bare" only opens, reads and closes what the scan opens.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/config_file.h"
#include "core/proc_walk.h"
#include "modules/config.h"

namespace {

const char* config_file;
std::vector<std::string> opened_paths;
thread_local bool recording = false;

void run(const std::string& mode) {
    Config& config = Config::get();
    if (mode == "walk") {
        walk_proc();
    } else if (mode == "known") {
        if (config.need_traverse()) abort();  // a task of the population is gone
    } else if (mode == "shell") {
        config.check_process_sh();
    } else {
        if (system(("exec " + mode + " >/dev/null").c_str()) != 0) abort();
        return;
    }
    config.scan_process({});
}

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

// On a device, too, others have filled the processor's caches before a scan begins. What is
// measured in turns would find them as the turn before it left them.
void fill_caches() {
    static std::vector<char> memory(size_t{32} << 20);
    for (char& byte : memory) ++byte;
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
    if (recording) opened_paths.emplace_back(path);
    if (strcmp(path, "/vendor/etc/tovrel.json") == 0) path = config_file;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, 0));
}
extern "C" int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    config_file = argv[1];
    read_config_file(&Config::get());
    const std::string mode = argv[2];
    run("walk");  // finds the tasks
    recording = true;
    run(mode);
    recording = false;

    while (getchar() != EOF) {
        fill_caches();
        const double before = processor_seconds();
        if (argc > 3) {
            for (const std::string& path : opened_paths) read_bare(path);
        } else {
            run(mode);
        }
        printf("%.9f\n", processor_seconds() - before);
        fflush(stdout);
    }
}
