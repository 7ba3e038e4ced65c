#include "app/feed.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        return tessel::run_feed(argc > 0 ? argc - 1 : 0, argv + 1);
    } catch (const std::exception& error) {
        // Nothing but a lack of memory gets here.
        std::fprintf(stderr, "tessel: %s\n", error.what());
        return 1;
    }
}
