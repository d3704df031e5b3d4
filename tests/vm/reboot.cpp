// The caller lacks the capability to reboot. As on a device, process 1 is asked to.

#include <cutils/android_reboot.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

int android_reboot(unsigned cmd, int /*flags*/, const char* reason) {
    const int request = open("/run/reboot", O_WRONLY | O_CLOEXEC);
    if (request == -1 || cmd != ANDROID_RB_RESTART2) return -1;
    dprintf(request, "%s\n", reason);
    return close(request);
}
