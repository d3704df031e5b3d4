// The functions through which the daemon and the libraries under it reach the system, defined anew:
// they answer for the device. Those that the program around a play needs as well are the C
// library's own outside of it; the others are not called there.

#include <android-base/strings.h>
#include <android/log.h>
#include <cutils/android_reboot.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "sim/play.h"
#include "sim/running_play.h"

// The C library's own definition of one of the functions below.
#define REAL(function)                                          \
    ([] {                                                       \
        static void* const found = dlsym(RTLD_NEXT, #function); \
        return reinterpret_cast<decltype(&::function)>(found);  \
    }())

using android::base::StartsWith;

std::map<int, OpenFile> open_files;

namespace {

// The only other thread of the daemon; its calls come in between.
bool is_worker_thread() {
    if (gettid() == getpid()) return false;
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    REQUIRE(strcmp(name, "workThread") == 0);
    return true;
}

// Whether the device has the path's place, whether there is such a file or not.
bool is_played(const std::string& path) {
    return device != nullptr && !StartsWith(path, "/proc/self/") &&
           (StartsWith(path, "/proc/") || StartsWith(path, "/vendor/") || path == "/dev/kmsg");
}

// Counts a call, such as "open /dev/kmsg". Whether it is to fail now; errno is set then.
bool fails(const std::string& call) {
    const std::string number = is_worker_thread() ? "" : std::to_string(++device->calls);
    for (const std::string& key : {call, number}) {
        const auto failure = device->failures.find(key);
        if (failure == device->failures.end()) continue;
        errno = abs(failure->second);
        if (failure->second < 0) device->failures.erase(failure);
        return true;
    }
    return false;
}

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

int open_played(const std::string& path, int flags) {
    const std::lock_guard lock(play_mutex);
    if (android::base::EndsWith(path, "/cmdline")) {
        device->now_us += int64_t{device->settings["cost"]} * 1000;
    }
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
    const int fd = eventfd(0, EFD_CLOEXEC);  // the cheapest there is
    REQUIRE(fd >= 0);
    open_files[fd] = file;
    return fd;
}

}  // namespace

extern "C" {

// Nothing here creates files.
int open(const char* path, int flags, ...) {
    REQUIRE((flags & O_CREAT) == 0);
    return is_played(path) ? open_played(path, flags) : REAL(open)(path, flags);
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int lstat(const char* path, struct stat* status) noexcept {
    status->st_mode = device->files.count(path) != 0 ? S_IFREG : S_IFDIR;
    return 0;
}

int close(int fd) {
    REQUIRE(fd >= 0);
    const std::lock_guard lock(play_mutex);
    open_files.erase(fd);
    return REAL(close)(fd);
}

ssize_t read(int fd, void* data, size_t size) {
    std::unique_lock lock(play_mutex);
    const auto file = open_files.find(fd);
    if (file == open_files.end()) {
        lock.unlock();  // others_sleep() reads what the worker thread does without it
        return REAL(read)(fd, data, size);
    }
    std::string& content = file->second.content;
    const size_t count = content.copy(static_cast<char*>(data), size);
    content.erase(0, count);
    // A read that fails comes after all that was read, which must be forgotten then.
    return count == 0 && fails("read " + file->second.path) ? -1 : static_cast<ssize_t>(count);
}

ssize_t write(int fd, const void* data, size_t size) {
    REQUIRE(fd >= 0);
    const std::lock_guard lock(play_mutex);
    const auto file = open_files.find(fd);
    if (file == open_files.end()) return REAL(write)(fd, data, size);
    const std::string& path = file->second.path;
    if (fails("write " + path)) return -1;
    record(path.substr(path.rfind('/') + 1), std::string(static_cast<const char*>(data), size));
    return static_cast<ssize_t>(size);
}

off_t lseek(int fd, off_t offset, int origin) noexcept {
    const std::lock_guard lock(play_mutex);
    if (open_files.count(fd) == 0) return REAL(lseek)(fd, offset, origin);
    record("lseek", offset);
    return offset;
}
off64_t lseek64(int fd, off64_t offset, int origin) noexcept __attribute__((alias("lseek")));

// The daemon makes one such call, getdents64().
long syscall(long number, ...) {
    REQUIRE(number == SYS_getdents64);
    const std::lock_guard lock(play_mutex);
    va_list arguments;
    va_start(arguments, number);
    OpenFile& directory = open_files[va_arg(arguments, int)];
    char* buffer = va_arg(arguments, char*);
    const size_t size = va_arg(arguments, size_t);
    va_end(arguments);
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

FILE* popen(const char* command, const char* mode) {
    const std::lock_guard lock(play_mutex);
    record("popen", mode, command);
    if (fails(std::string("popen ") + command)) return nullptr;
    const int fd = data_file(device->output_of(command));
    open_files[fd].path = command;
    return fdopen(fd, mode);
}

int pclose(FILE* stream) {
    const std::lock_guard lock(play_mutex);
    open_files.erase(fileno(stream));
    fclose(stream);
    return fails("pclose") ? -1 : 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (device == nullptr) return REAL(clock_gettime)(clock, time);
    REQUIRE(clock == CLOCK_MONOTONIC_COARSE);
    constexpr int64_t kBootSeconds = 1000;
    *time = {kBootSeconds + device->now_us / 1000000, device->now_us / 1000 % 1000 * 1000000};
    return 0;
}

int usleep(useconds_t us) {
    await_worker();
    const std::lock_guard lock(play_mutex);
    record("usleep", us);
    device->now_us += us + int64_t{device->settings["late"]} * 1000;
    return 0;
}

// The top of every turn of the scan loop.
unsigned alarm(unsigned seconds) noexcept {
    const int64_t now_ms = device->now_us / 1000;
    if (now_ms > int64_t{device->settings["until"]} * 1000) end_play();
    if (device->settings["turns"]-- == 0) end_play();
    limit_turn();
    const std::lock_guard lock(play_mutex);
    record("calls", device->calls);
    record("alarm", seconds);
    device->take_due_steps();
    return 0;
}

// What idles does so for ever; the second time shows it.
int pause() {
    record("pause");
    static bool has_paused = false;
    if (std::exchange(has_paused, true)) end_play();
    return -1;
}

int kill(pid_t pid, int number) noexcept {
    record("kill", pid == getpid() ? "self" : std::to_string(pid), number);
    if (pid == getpid()) end_play();
    return 0;
}

sighandler_t signal(int number, sighandler_t handler) noexcept {
    record("signal", number);
    return std::exchange(device->signal_handler, handler);
}

int prctl(int option, unsigned long value) noexcept {
    record("prctl", option, value);
    return 0;
}

int sched_setscheduler(pid_t pid, int policy, const sched_param* param) noexcept {
    record("sched_setscheduler", pid, policy, param->sched_priority);
    return 0;
}

int android_reboot(unsigned command, int flags, const char* reason) {
    REQUIRE(command == ANDROID_RB_RESTART2 && flags == 0);
    record("reboot", reason);
    return -1;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    REQUIRE(strcmp(tag, "tovrel") == 0);
    record("..VDIWEF"[priority], text);
    return 1;
}
}
