// usage: tovrel_soak SCANS [SEED]

#include <cstdio>
#include <cstdlib>

#include "world.h"

int main(int argc, char** argv) {
    must(argc > 1);
    const std::string turns = "turns " + std::to_string(atoll(argv[1]) / 2);
    const auto seed = static_cast<uint32_t>(argc > 2 ? atoi(argv[2]) : 1);
    for (const char* mode : {"; shell off", "; shell on"}) {
        const std::string events = soak(turns + mode, seed);
        printf("%s%s: %s\n", turns.c_str(), mode, events.c_str());
        if (events != "nothing") return EXIT_FAILURE;
    }
}
