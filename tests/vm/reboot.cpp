// Restarts the virtual machine at once, where a device's process 1 would do so.

#include <cutils/android_reboot.h>
#include <linux/reboot.h>
#include <sys/syscall.h>
#include <unistd.h>

int android_reboot(unsigned cmd, int /*flags*/, const char* reason) {
    // What is not such a machine could be a host.
    if (cmd != ANDROID_RB_RESTART2 || access("/tovrel.rc", F_OK) != 0) return -1;
    return static_cast<int>(syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2,
                                    LINUX_REBOOT_CMD_RESTART2, reason));
}
