#include "core/kernel_log.h"

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "core/log.h"

void write_kmsg(std::string& line) {
    if (line.empty()) return;
    if (debug_gate) LOG_INFO("%s", line.c_str());
    android::base::unique_fd kmsg(TEMP_FAILURE_RETRY(open("/dev/kmsg", O_WRONLY | O_CLOEXEC)));
    if (kmsg == -1) {
        if (debug_gate) LOG_ERROR("error opening kmsg");
        return;
    }
    if (!android::base::WriteStringToFd(line, kmsg) && debug_gate) {
        LOG_ERROR("write %s to kmsg failed", line.c_str());
    }
}
