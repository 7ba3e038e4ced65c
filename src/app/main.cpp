#include "app/feed.h"
#include "base/standard_descriptors.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    tessel::open_standard_descriptors();
    try {
        return tessel::run_feed(argc > 0 ? argc - 1 : 0, argv + 1);
    } catch (const std::exception& error) {
        // Nothing but a lack of memory gets here.
        std::fprintf(stderr, "tessel: %s\n", error.what());
        return 1;
    }
}
