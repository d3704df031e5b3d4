#pragma once

#include <mutex>
#include <string>

#include "sim/device.h"

// What a play and the system calls in it share.

// The device in which the daemon runs; null outside of a play.
extern Device* device;

// Guards everything of a play: the daemon's worker thread makes calls, too.
extern std::recursive_mutex play_mutex;

// Gives the turn of the scan loop that begins now as much real time as any turn may take. One that
// takes longer ends the play.
void limit_turn();

// Counts a call of the daemon, such as "open /dev/kmsg". Whether it is to fail now; errno is set
// then.
bool fails(const std::string& call);
