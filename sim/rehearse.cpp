// usage: rehearse CONFIG STEPS    "-" for CONFIG: it is told in the steps
//        rehearse < PLAYS
//
// Plays the daemon with a configuration in virtual time, on a device that is told in STEPS, and
// prints its events: a line each, behind the seconds since the start. The steps: sim/README.md.
// Of PLAYS each line has the steps of one; a line "end" stands behind the events of each.

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

bool play_lines() {
    for (std::string steps; std::getline(std::cin, steps);) {
        if (!print(play(steps))) return false;
        puts("end");
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1) return play_lines() ? 0 : 2;
    if (argc == 3) {
        const std::string config = argv[1];
        return print(play(config == "-" ? argv[2] : "config " + config + ";" + argv[2])) ? 0 : 2;
    }
    fprintf(stderr, "usage: rehearse CONFIG|- STEPS, or rehearse < PLAYS\n");
    return 2;
}
