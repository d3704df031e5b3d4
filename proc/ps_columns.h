#pragma once

#include <cstddef>

// The columns that the platform's ps prints unasked, separated by runs of blanks. What follows a
// blank within a name makes further columns.

// `ps -e`: a line for each process.
namespace ps_processes {
enum Column : size_t { kUser, kPid, kPpid, kVsz, kRss, kWchan, kAddress, kState, kName, kColumns };
}

// `ps -T`: a line for each thread, whose id comes after that of its process.
namespace ps_threads {
enum Column : size_t {
    kUser,
    kPid,
    kTid,
    kPpid,
    kVsz,
    kRss,
    kWchan,
    kAddress,
    kState,
    kName,
    kColumns
};
}
