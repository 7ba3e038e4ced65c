#pragma once

#include <pthread.h>

namespace tessel::console {

// The name of this thread as the system's tools show it; at most 15 letters.
inline void name_thread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

}  // namespace tessel::console
