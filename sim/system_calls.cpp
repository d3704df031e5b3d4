// The functions through which the daemon and the libraries under it reach the system, defined anew:
// they answer for the device. Those that the program around a play needs as well are the C
// library's own outside of it; the others are not called there.

#include <android-base/strings.h>
#include <android/log.h>
#include <cutils/android_reboot.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "sim/open_files.h"
#include "sim/play.h"
#include "sim/running_play.h"

// The C library's own definition of one of the functions below.
#define REAL(function)                                          \
    ([] {                                                       \
        static void* const found = dlsym(RTLD_NEXT, #function); \
        return reinterpret_cast<decltype(&::function)>(found);  \
    }())

namespace {

using android::base::StartsWith;

int unwritten_ids;  // queued for the worker thread, as the log tells with debug on

int data_file(const std::string& content) {
    const int fd = memfd_create("played", MFD_CLOEXEC);
    REQUIRE(pwrite(fd, content.data(), content.size(), 0) == ssize_t(content.size()));
    return fd;
}

// The only other thread of the daemon; its calls come in between.
bool is_worker_thread() {
    if (gettid() == getpid()) return false;
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    REQUIRE(strcmp(name, "workThread") == 0);
    return true;
}

}  // namespace

bool fails(const std::string& call) {
    const bool is_counted = !is_worker_thread();
    errno = is_counted && ++device->calls == device->failing_call ? device->failing_errno : 0;
    const auto failure = device->failures.find(call);
    if (failure != device->failures.end()) {
        errno = abs(failure->second);
        if (failure->second < 0) device->failures.erase(failure);
    }
    return errno != 0;
}

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    return is_played(path) ? open_played(path, flags) : REAL(open)(path, flags, mode);
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
    const std::lock_guard lock(play_mutex);
    const auto file = open_files.find(fd);
    if (file == open_files.end()) return REAL(read)(fd, data, size);
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
    if (path == kPerTaskFile) --unwritten_ids;
    return static_cast<ssize_t>(size);
}

off_t lseek(int fd, off_t offset, int origin) noexcept {
    const std::lock_guard lock(play_mutex);
    if (open_files.count(fd) == 0) return REAL(lseek)(fd, offset, origin);
    record("lseek", offset);
    return offset;
}
off64_t lseek64(int fd, off64_t offset, int origin) noexcept __attribute__((alias("lseek")));

long syscall(long number, ...) {
    long a[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& argument : a) argument = va_arg(arguments, long);
    va_end(arguments);
    if (device != nullptr && number == SYS_getdents64) {
        return read_directory(static_cast<int>(a[0]), reinterpret_cast<char*>(a[1]), a[2]);
    }
    return REAL(syscall)(number, a[0], a[1], a[2], a[3], a[4], a[5]);
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
    *time = {device->now_ms / 1000, device->now_ms % 1000 * 1000000};
    return 0;
}

int usleep(useconds_t us) {
    await_worker([] { return unwritten_ids <= 0; });
    const std::lock_guard lock(play_mutex);
    record("usleep", us);
    device->slept_us += us;
    device->now_ms += device->slept_us / 1000 + device->settings["late"];
    device->slept_us %= 1000;
    return 0;
}

// The top of every turn of the scan loop.
unsigned alarm(unsigned seconds) noexcept {
    const int64_t until_ms = int64_t{device->settings["until"]} * 1000;
    if (device->settings["turns"]-- == 0 || device->now_ms - device->start_ms > until_ms) {
        end_play();
    }
    limit_turn();
    const std::lock_guard lock(play_mutex);
    record("calls", device->calls);
    record("alarm", seconds);
    device->take_due_steps();
    return 0;
}

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
    const std::lock_guard lock(play_mutex);
    record("..VDIWEF"[priority], text);
    if (StartsWith(text, "add_pids")) ++unwritten_ids;
    if (priority == ANDROID_LOG_ERROR && strstr(text, kPerTaskFile) != nullptr) --unwritten_ids;
    return 1;
}
}
