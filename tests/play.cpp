// usage: tovrel_play CONFIG STEPS
//
// Plays the daemon with a configuration file in virtual time, and prints what it sends and reports.

#include <cstdio>
#include <fstream>
#include <iterator>

#include "world.h"

int main(int argc, char** argv) {
    must(argc == 3);
    std::ifstream config(argv[1]);
    World world(argv[2]);
    world.files["/vendor/etc/tovrel.json"].assign(std::istreambuf_iterator<char>(config), {});
    puts(world.run().c_str());
}
