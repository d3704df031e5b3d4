#pragma once

// Scans the device for ever by the settings in Config, under the self-watchdog. The first scan
// begins one interval after the call.
[[noreturn]] void run_scan_loop();
