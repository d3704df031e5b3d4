// What the virtual machine needs beyond a shell:
//
//     guest run_as UID GID CAPABILITIES PROGRAM [ARGUMENT...]    starts it like a service of init
//     guest restart REASON                                       process 1 restarts the kernel
//     guest fuse_server | binder_server                          stay, without an answer to anybody
//     guest wait futex | fuse | call main | thread               waits for one in the kernel
//
// CAPABILITIES are like "KILL,SYS_PTRACE". A thread that waits has a binder thread's name.

#include <fcntl.h>
#include <grp.h>
#include <linux/android/binder.h>
#include <linux/capability.h>
#include <linux/fuse.h>
#include <linux/reboot.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace {

void run_as(char** arguments) {
    std::set<int> kept;
    const std::string names = arguments[2];
    if (names.find("KILL") != std::string::npos) kept.insert(CAP_KILL);
    if (names.find("SYS_ADMIN") != std::string::npos) kept.insert(CAP_SYS_ADMIN);
    if (names.find("SYS_PTRACE") != std::string::npos) kept.insert(CAP_SYS_PTRACE);
    for (int capability = 0; capability <= CAP_LAST_CAP; ++capability) {
        // What the bounding set lacks, root does not regain by the exec.
        if (kept.count(capability) == 0) prctl(PR_CAPBSET_DROP, capability);
    }
    if (setgroups(0, nullptr) != 0 || setgid(atoi(arguments[1])) != 0) return;
    if (setuid(atoi(arguments[0])) == 0) execv(arguments[3], arguments + 3);
}

void restart(const char* reason) {
    if (getpid() != 1) return;  // anywhere else it could be a host
    syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_RESTART2,
            reason);
}

// Mounts /fuse. Answers the first request, without which no other would be sent, and none after it.
void serve_fuse() {
    const int device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    const std::string options =
            "fd=" + std::to_string(device) + ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (mount("guest", "/fuse", "fuse", 0, options.c_str()) != 0) return;
    alignas(fuse_in_header) char request[FUSE_MIN_READ_BUFFER];
    if (read(device, request, sizeof(request)) < 0) return;
    struct {
        fuse_out_header header = {sizeof(*this), 0, 0};
        fuse_init_out init = {};
    } answer;
    answer.header.unique = reinterpret_cast<fuse_in_header*>(request)->unique;
    answer.init.major = FUSE_KERNEL_VERSION;
    answer.init.minor = FUSE_KERNEL_MINOR_VERSION;
    answer.init.flags = FUSE_PARALLEL_DIROPS;  // a lookup does not wait for another one
    if (write(device, &answer, sizeof(answer)) < 0) return;
    for (;;) pause();
}

int open_binder() {
    const int device = open("/dev/binder", O_RDWR | O_CLOEXEC);
    if (mmap(nullptr, 65536, PROT_READ, MAP_PRIVATE, device, 0) == MAP_FAILED) perror("binder");
    return device;
}

// Gives the driver `size` bytes of commands and waits until it has something to say.
void talk_to_binder(int device, void* commands, size_t size) {
    char answers[4096];
    binder_write_read exchange = {};
    exchange.write_size = size;
    exchange.write_buffer = reinterpret_cast<binder_uintptr_t>(commands);
    exchange.read_size = sizeof(answers);
    exchange.read_buffer = reinterpret_cast<binder_uintptr_t>(answers);
    ioctl(device, BINDER_WRITE_READ, &exchange);
}

// The first thread takes one call and forgets it; the second one stays idle.
void serve_binder() {
    const int device = open_binder();
    if (ioctl(device, BINDER_SET_CONTEXT_MGR, 0) != 0) return;
    uint32_t enter = BC_ENTER_LOOPER;
    talk_to_binder(device, &enter, sizeof(enter));
    prctl(PR_SET_NAME, "Binder:m_busy");
    std::thread([device, enter]() mutable {
        prctl(PR_SET_NAME, "Binder:t_idle");
        for (;;) talk_to_binder(device, &enter, sizeof(enter));
    }).join();
}

void call_binder() {
    struct __attribute__((packed)) {
        uint32_t command = BC_TRANSACTION;
        binder_transaction_data call = {};  // to the context manager
    } commands;
    const int device = open_binder();
    talk_to_binder(device, &commands, sizeof(commands));
    for (;;) talk_to_binder(device, nullptr, 0);
}

void wait(const std::string& kind, const std::string& where) {
    prctl(PR_SET_NAME, ("Binder:" + where.substr(0, 1) + "_" + kind).c_str());
    if (kind == "fuse") open(("/fuse/" + where).c_str(), O_RDONLY | O_CLOEXEC);
    if (kind == "call") call_binder();
    std::mutex mutex;
    mutex.lock();
    mutex.lock();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "run_as" && argc > 5) run_as(argv + 2);
    if (role == "restart" && argc == 3) restart(argv[2]);
    for (int number : {SIGQUIT, 35}) signal(number, [](int) {});
    if (role == "fuse_server") serve_fuse();
    if (role == "binder_server") serve_binder();
    if (role == "wait" && argc == 4) {
        if (*argv[3] == 'm') wait(argv[2], argv[3]);
        std::thread(wait, argv[2], argv[3]).join();
    }
    perror("guest");
    return EXIT_FAILURE;
}
