// usage: tovrel_play CONFIG STEPS
//
// Plays the daemon with a configuration file in virtual time, and prints what it sends and reports.

#include <android-base/file.h>

#include <cstdio>

#include "world.h"

int main(int argc, char** argv) {
    World world(argc == 3 ? argv[2] : "");
    std::string& config = world.files["/vendor/etc/tovrel.json"];
    must(argc == 3 && android::base::ReadFileToString(argv[1], &config));
    puts(world.run().c_str());
}
