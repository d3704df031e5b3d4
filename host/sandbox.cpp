// Preload library that lets the unmodified daemon run on a Linux host, without privileges and
// without touching the kernel. The device's files below are opened in the directory that the
// environment variable TOVREL_SANDBOX names, under the same path; without that variable they cannot
// be opened at all. Every other path is opened as usual. It catches the functions by which the
// daemon and its libraries open files; scripts/sandbox.py refuses a daemon that uses another one.
//
// With TOVREL_NO_SIGNALS set, the daemon's signals to other processes are logged in place of being
// sent.
//
// A redirected file is never created, so a kernel without the hung-task extension is played by a
// directory without its files. What is written is appended, at each opening behind a newline of
// the sandbox's own, since the daemon writes its records without any.

#include <android/log.h>
#include <errno.h>
#include <limits.h>
#include <linux/fcntl.h>  // <fcntl.h> would redirect or inline the functions defined here
#include <linux/magic.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr const char* kRedirected[] = {"/vendor/etc/tovrel.json", "/dev/kmsg",
                                       "/proc/sysrq-trigger", "/proc/sys/hung_task_enh/"};

bool is_redirected(const char* path) {
    for (const char* start : kRedirected) {
        if (strncmp(path, start, strlen(start)) == 0) return true;
    }
    return false;
}

int kernel_open(const char* path, int flags, unsigned mode) {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

// False for a device and for a file of /proc: a sandbox that is "/" or holds a link out of itself
// must not lead back to the kernel.
bool is_plain_file(int fd) {
    struct stat status;
    struct statfs file_system;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && fstatfs(fd, &file_system) == 0 &&
           file_system.f_type != PROC_SUPER_MAGIC;
}

int sandbox_open(const char* path, int flags) {
    const char* sandbox = getenv("TOVREL_SANDBOX");
    char redirected[PATH_MAX];
    if (sandbox == nullptr || *sandbox == '\0' ||
        snprintf(redirected, sizeof(redirected), "%s%s", sandbox, path) >= PATH_MAX) {
        errno = EACCES;
        return -1;
    }
    flags &= ~(O_CREAT | O_EXCL | O_TRUNC);
    const bool for_writing = (flags & O_ACCMODE) != O_RDONLY;
    const int fd = kernel_open(redirected, for_writing ? flags | O_APPEND : flags, 0);
    if (fd == -1) return -1;
    if (!is_plain_file(fd)) {
        close(fd);
        errno = EACCES;
        return -1;
    }
    if (for_writing) dprintf(fd, "\n");
    return fd;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const bool has_mode = (flags & (O_CREAT | __O_TMPFILE)) != 0;
    const unsigned mode = has_mode ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (path != nullptr && is_redirected(path)) return sandbox_open(path, flags);
    return kernel_open(path, flags, mode);
}

// On the 64-bit hosts served here the two are the same.
static_assert(sizeof(off_t) == 8);
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int kill(pid_t pid, int number) {
    if (pid == getpid() || getenv("TOVREL_NO_SIGNALS") == nullptr) {
        return static_cast<int>(syscall(SYS_kill, pid, number));
    }
    __android_log_print(ANDROID_LOG_INFO, "host", "signal not sent: %d to process %d", number, pid);
    return 0;
}

}  // extern "C"
