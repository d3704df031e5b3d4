#pragma once

#include <cstddef>

// Of the columns that the platform's ps prints unasked, separated by runs of blanks, those that are
// read. What follows a blank within a name makes further columns.

// `ps -e`: a line for each process.
namespace ps_processes {
enum Column : size_t { kPid = 1, kPpid, kState = 7, kName, kColumns };
}

// `ps -T`: a line for each thread, whose id comes after that of its process.
namespace ps_threads {
enum Column : size_t { kUser, kPid, kTid, kPpid, kWchan = 6, kState = 8, kName, kColumns };
}
