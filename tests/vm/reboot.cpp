// Restarts the virtual machine with the given reason; the kernel tells it on the console.

#include <linux/reboot.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (getpid() != 1 || argc != 2) return EXIT_FAILURE;  // anywhere else it could be a host
    syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2, LINUX_REBOOT_CMD_RESTART2,
            argv[1]);
    perror("reboot");
    return EXIT_FAILURE;
}
