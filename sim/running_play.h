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

// The daemon begins: what is open now is not its own.
void remember_open_descriptors();

// What the daemon has left open: paths, commands, other descriptors, and a child that it has not
// waited for. Waits until the worker thread is at rest.
std::string left_open();
