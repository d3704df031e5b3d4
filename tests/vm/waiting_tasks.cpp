// Tasks of the virtual machine that wait in the kernel for an answer that never comes: each a
// thread with a binder thread's name.
//
// usage: waiting_tasks fuse_server | binder_server    stay; print "ready"
//        waiting_tasks KIND main | thread             wait in the first thread or in another one
//
// KIND is "futex", "fuse" (a file in /fuse) or "call" (to the binder server). A task prints
// its name and its process and thread ids before it waits.

#include <fcntl.h>
#include <linux/android/binder.h>
#include <linux/fuse.h>
#include <linux/futex.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

void announce(const std::string& name) {
    prctl(PR_SET_NAME, name.c_str());
    printf("%s pid=%d tid=%d\n", name.c_str(), getpid(), gettid());
    fflush(stdout);
}

// ---- FUSE ----

// Mounts /fuse and answers the first request, without which no other is sent, and none after it.
void serve_fuse() {
    const int device = open("/dev/fuse", O_RDWR);
    const std::string options = "fd=" + std::to_string(device) +
                                ",rootmode=40000,user_id=0,group_id=0,allow_other";
    if (mount("vm", "/fuse", "fuse", 0, options.c_str()) != 0) return perror("mount");
    char request[FUSE_MIN_READ_BUFFER];
    if (read(device, request, sizeof(request)) < 0) return perror("read");
    struct {
        fuse_out_header header = {sizeof(*this), 0, 0};
        fuse_init_out init = {};
    } answer;
    answer.header.unique = reinterpret_cast<fuse_in_header*>(request)->unique;
    answer.init.major = FUSE_KERNEL_VERSION;
    answer.init.minor = FUSE_KERNEL_MINOR_VERSION;
    answer.init.flags = FUSE_PARALLEL_DIROPS;  // a lookup does not wait for another one
    answer.init.max_write = 4096;
    if (write(device, &answer, sizeof(answer)) < 0) return perror("write");
    puts("ready");
    fflush(stdout);
    for (;;) pause();
}

void wait_for_fuse() {
    open(("/fuse/" + std::to_string(gettid())).c_str(), O_RDONLY);
}

// ---- Binder ----

int open_binder() {
    const int device = open("/dev/binder", O_RDWR | O_CLOEXEC);
    mmap(nullptr, 65536, PROT_READ, MAP_PRIVATE, device, 0);
    return device;
}

// Sends `size` bytes of commands and waits for something to read.
void talk(int device, void* commands, size_t size) {
    char answers[4096];
    binder_write_read exchange = {};
    exchange.write_size = size;
    exchange.write_buffer = reinterpret_cast<binder_uintptr_t>(commands);
    exchange.read_size = sizeof(answers);
    exchange.read_buffer = reinterpret_cast<binder_uintptr_t>(answers);
    if (ioctl(device, BINDER_WRITE_READ, &exchange) != 0) perror("binder");
}

// Its first thread takes one call and is busy with it for ever; the second one is idle.
void serve_binder() {
    const int device = open_binder();
    if (ioctl(device, BINDER_SET_CONTEXT_MGR, 0) != 0) return perror("context manager");
    uint32_t enter = BC_ENTER_LOOPER;
    puts("ready");
    fflush(stdout);
    talk(device, &enter, sizeof(enter));
    std::thread([device] {
        announce("Binder:idle");
        uint32_t enter = BC_ENTER_LOOPER;
        for (;;) talk(device, &enter, sizeof(enter));
    }).detach();
    for (;;) pause();
}

void call_binder() {
    struct __attribute__((packed)) {
        uint32_t command = BC_TRANSACTION;
        binder_transaction_data call = {};
    } commands;
    const int device = open_binder();
    talk(device, &commands, sizeof(commands));
    for (;;) talk(device, nullptr, 0);
}

// ---- Futex ----

void wait_for_futex() {
    uint32_t word = 0;
    for (;;) syscall(SYS_futex, &word, FUTEX_WAIT, 0, nullptr, nullptr, 0);
}

void wait(const std::string& kind, const char* where) {
    announce(std::string("Binder:") + where[0] + "_" + kind);  // "Binder:m_fuse"
    if (kind == "futex") wait_for_futex();
    if (kind == "fuse") wait_for_fuse();
    if (kind == "call") call_binder();
}

}  // namespace

int main(int argc, char** argv) {
    for (int number : {SIGQUIT, 35}) signal(number, [](int) {});
    if (argc == 2 && strcmp(argv[1], "fuse_server") == 0) serve_fuse();
    if (argc == 2 && strcmp(argv[1], "binder_server") == 0) serve_binder();
    if (argc != 3) return EXIT_FAILURE;
    if (strcmp(argv[2], "main") == 0) {
        wait(argv[1], argv[2]);
    } else {
        std::thread(wait, argv[1], argv[2]).detach();
    }
    for (;;) pause();
}
