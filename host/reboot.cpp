// A host is never rebooted: the request is logged.

#include <android/log.h>
#include <cutils/android_reboot.h>

int android_reboot(unsigned cmd, int /*flags*/, const char* reason) {
    __android_log_print(ANDROID_LOG_INFO, "host", "reboot not done: cmd=0x%08X, reason=%s", cmd,
                        reason);
    return 0;
}
