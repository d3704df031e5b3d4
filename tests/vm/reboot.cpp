// Restarts the virtual machine at once, where a device's process 1 would do so.

#include <cutils/android_reboot.h>
#include <linux/reboot.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

int android_reboot(unsigned cmd, int /*flags*/, const char* reason) {
    // Anything else than the guest could be a host.
    if (cmd != ANDROID_RB_RESTART2 || getenv("VIRTUAL_MACHINE") == nullptr) return -1;
    return static_cast<int>(syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2,
                                    LINUX_REBOOT_CMD_RESTART2, reason));
}
