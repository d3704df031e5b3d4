#pragma once

#include <functional>
#include <sstream>
#include <string>

#include "sim/device.h"

// How a play ended.
struct Outcome {
    std::string events;   // a line each, its seconds before it: "5 kill 10 35\n12 reboot tovrel\n"
    std::string failure;  // why it could not go on: a wrong step, a crash; empty as a rule
};

// The daemon's.
int tovrel_main();

// Plays the daemon, from its main on, in a device that begins with `steps`, until its time is up or
// the daemon ends; or something else in the daemon's place, which then ends the play. Everything
// runs in a process of its own: no play sees another.
Outcome play(const std::string& steps, const std::function<void()>& program = tovrel_main);

// Inside a play:

// Ends it. What the daemon has left open, or a child that it did not wait for, is an event
// "leaked".
[[noreturn]] void end_play();

// Ends it as a failure.
[[noreturn]] void fail(const std::string& why);
#define REQUIRE(condition) ((condition) ? void() : fail("does not hold: " #condition))

// Adds an event, of words with a blank in between.
void add_event(const std::string& event);
template <typename First, typename... Words>
void record(const First& first, const Words&... words) {
    std::ostringstream event;
    event << first;
    ((event << ' ' << words), ...);
    add_event(event.str());
}
