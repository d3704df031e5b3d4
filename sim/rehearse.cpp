// usage: rehearse CONFIG STEPS
//
// Plays the daemon with a configuration in virtual time, on a device that is told in STEPS, and
// prints its events: a line each, behind the seconds since the start. The steps: sim/README.md.

#include <android-base/file.h>

#include <cstdio>

#include "sim/play.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: rehearse CONFIG STEPS\n");
        return 2;
    }
    std::string config;
    if (!android::base::ReadFileToString(argv[1], &config, true)) {
        fprintf(stderr, "rehearse: cannot read %s\n", argv[1]);
        return 2;
    }
    const Outcome outcome = play(argv[2], [&config](Device& device) {
        device.files["/vendor/etc/tovrel.json"] = config;
    });
    fputs(outcome.events.c_str(), stdout);
    if (outcome.failure.empty()) return 0;
    fprintf(stderr, "rehearse: %s\n", outcome.failure.c_str());
    return 2;
}
