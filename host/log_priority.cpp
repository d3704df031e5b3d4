// The log of a Linux host hides lines below INFO unless told otherwise; Android writes them.

#include <android/log.h>

__attribute__((constructor)) static void show_all_priorities() {
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}
