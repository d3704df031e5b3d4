// usage: tovrel_soak SCANS [SEED]

#include <cstdio>
#include <cstdlib>

#include "world.h"

int main(int argc, char** argv) {
    must(argc > 1);
    const std::string turns = "turns " + std::to_string(atoll(argv[1]) / 2);
    for (const char* mode : {"; shell off", "; shell on"}) {
        const std::string end = soak(turns + mode, argc > 2 ? atoi(argv[2]) : 1);
        printf("%s%s: %s\n", turns.c_str(), mode, end == "nothing" ? "passed" : end.c_str());
        if (end != "nothing") return EXIT_FAILURE;
    }
}
