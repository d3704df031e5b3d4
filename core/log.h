#pragma once

#include <android/log.h>

// One line in the Android log under the daemon's tag. Whether a line is written at all is decided
// at the call, by the debug switch that the caller answers to.
#define LOG_DEBUG(...) __android_log_print(ANDROID_LOG_DEBUG, "tovrel", __VA_ARGS__)
#define LOG_INFO(...) __android_log_print(ANDROID_LOG_INFO, "tovrel", __VA_ARGS__)
#define LOG_ERROR(...) __android_log_print(ANDROID_LOG_ERROR, "tovrel", __VA_ARGS__)

// The debug switch of the free functions: the scan loop, the /proc readers, exec_command(), the
// hang policy and the echo of the kernel log. Copied from Config just before the scan loop, false
// until then.
inline bool debug_gate = false;
