#include "core/sysrq.h"

#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "core/log.h"

void do_sys_rq(const char* command) {
    android::base::unique_fd trigger(open("/proc/sysrq-trigger", O_WRONLY | O_CLOEXEC));
    if (trigger == -1) {
        LOG_ERROR("open sysrq failed!");
        return;
    }
    // The trailing NUL is written too; the kernel acts on the first character.
    TEMP_FAILURE_RETRY(write(trigger.get(), command, strlen(command) + 1));
}
