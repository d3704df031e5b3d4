// usage: rehearse CONFIG STEPS
//        rehearse < PLAYS
//
// Plays the daemon with a configuration in virtual time, on a device that is told in STEPS, and
// prints its events: a line each, behind the seconds since the start. The steps: sim/README.md.
// Of PLAYS each line has the steps of one; a line "end" stands behind the events of each.

#include <android-base/file.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "sim/play.h"

namespace {

bool print(const Outcome& outcome) {
    fputs(outcome.events.c_str(), stdout);
    if (outcome.failure.empty()) return true;
    fprintf(stderr, "rehearse: %s\n", outcome.failure.c_str());
    return false;
}

int play_lines() {
    for (std::string steps; std::getline(std::cin, steps);) {
        if (!print(play(steps))) return 2;
        puts("end");
    }
    return 0;
}

int play_configuration(const char* file, const char* steps) {
    std::string config;
    if (!android::base::ReadFileToString(file, &config, true)) {
        fprintf(stderr, "rehearse: cannot read %s\n", file);
        return 2;
    }
    const auto prepare = [&](Device& device) { device.files["/vendor/etc/tovrel.json"] = config; };
    return print(play(steps, prepare)) ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) return play_lines();
    if (argc == 3) return play_configuration(argv[1], argv[2]);
    fprintf(stderr, "usage: rehearse CONFIG STEPS\n");
    return 2;
}
