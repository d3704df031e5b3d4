// Preload library that lets the unmodified daemon run on a Linux host, without privileges and
// without touching the kernel. The device's files below are opened in the directory that the
// environment variable TOVREL_SANDBOX names, under the same path; without that variable they cannot
// be opened at all. Every other path is opened as usual.
//
// A redirected file is never created, so a kernel without the hung-task extension is played by a
// directory without its files. What is written is appended, and begins on a line of its own: the
// newline before it is the sandbox's, since the daemon writes its records without any.

#include <errno.h>
#include <limits.h>
#include <linux/fcntl.h>  // <fcntl.h> would redirect or inline the functions defined here
#include <linux/magic.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr const char* kFiles[] = {"/vendor/etc/tovrel.json", "/dev/kmsg", "/proc/sysrq-trigger"};
constexpr char kExtensionDir[] = "/proc/sys/hung_task_enh/";

bool is_redirected(const char* path) {
    for (const char* file : kFiles) {
        if (strcmp(path, file) == 0) return true;
    }
    return strncmp(path, kExtensionDir, sizeof(kExtensionDir) - 1) == 0;
}

int kernel_open(int dir, const char* path, int flags, unsigned mode) {
    return static_cast<int>(syscall(SYS_openat, dir, path, flags, mode));
}

// Closes `fd` and fails like an open() that is not permitted.
int refuse(int fd) {
    if (fd != -1) close(fd);
    errno = EACCES;
    return -1;
}

// False for a device and for a file of /proc: a sandbox that is "/" or holds a link out of itself
// must not lead back to the kernel.
bool is_plain_file(int fd) {
    struct stat status;
    struct statfs file_system;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && fstatfs(fd, &file_system) == 0 &&
           file_system.f_type != PROC_SUPER_MAGIC;
}

// `fd` is open for reading and appending.
void begin_line(int fd) {
    char last = '\n';
    const off_t size = lseek(fd, 0, SEEK_END);
    if (size > 0 && pread(fd, &last, 1, size - 1) == 1 && last != '\n') {
        while (write(fd, "\n", 1) == -1 && errno == EINTR) {
        }
    }
}

int sandbox_open(const char* path, int flags) {
    const char* sandbox = getenv("TOVREL_SANDBOX");
    if (sandbox == nullptr || *sandbox == '\0' || strstr(path, "..") != nullptr) return refuse(-1);

    char redirected[PATH_MAX];
    if (snprintf(redirected, sizeof(redirected), "%s%s", sandbox, path) >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const bool for_writing = (flags & O_ACCMODE) != O_RDONLY;
    flags &= ~(O_CREAT | O_EXCL | O_TRUNC);
    if (for_writing) flags = (flags & ~O_ACCMODE) | O_RDWR | O_APPEND;

    const int fd = kernel_open(AT_FDCWD, redirected, flags, 0);
    if (fd == -1) return -1;
    if (!is_plain_file(fd)) return refuse(fd);
    if (for_writing) begin_line(fd);
    return fd;
}

int open_file(int dir, const char* path, int flags, unsigned mode) {
    if (path != nullptr && is_redirected(path)) return sandbox_open(path, flags);
    return kernel_open(dir, path, flags, mode);
}

// The argument after `flags`, which only a call that may create a file has.
unsigned mode_argument(int flags, va_list arguments) {
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & __O_TMPFILE) == __O_TMPFILE;
    return has_mode ? va_arg(arguments, unsigned) : 0;
}

}  // namespace

// On the 64-bit hosts served here open64() and open() are the same; the functions with the leading
// underscores are what callers built with _FORTIFY_SOURCE reach.
static_assert(sizeof(off_t) == 8);

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open_file(AT_FDCWD, path, flags, mode);
}

int openat(int dir, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = mode_argument(flags, arguments);
    va_end(arguments);
    return open_file(dir, path, flags, mode);
}

int open64(const char* path, int flags, ...) __attribute__((alias("open")));
int openat64(int dir, const char* path, int flags, ...) __attribute__((alias("openat")));

int __open_2(const char* path, int flags) {
    return open_file(AT_FDCWD, path, flags, 0);
}
int __open64_2(const char* path, int flags) {
    return open_file(AT_FDCWD, path, flags, 0);
}
int __openat_2(int dir, const char* path, int flags) {
    return open_file(dir, path, flags, 0);
}
int __openat64_2(int dir, const char* path, int flags) {
    return open_file(dir, path, flags, 0);
}

}  // extern "C"
