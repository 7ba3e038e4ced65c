/* Counts allocations: preloaded into the feed, it writes how many there were to the file named by ALLOCATION_COUNT_FILE
 * at each SIGUSR2. Calls the C library's internal functions. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <unistd.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* memory, size_t size);

static volatile unsigned long allocations;

void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    ++allocations;
    return __libc_realloc(memory, size);
}

static char path[512];

static void write_count(int number) {
    (void)number;
    char text[24];
    int at = sizeof text;
    unsigned long value = allocations;
    text[--at] = '\n';
    do {
        text[--at] = (char)('0' + value % 10);
        value /= 10;
    } while (value != 0);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
        if (write(fd, text + at, sizeof text - (size_t)at) < 0) {
            _exit(99);
        }
        close(fd);
    }
}

__attribute__((constructor)) static void start(void) {
    const char* name = getenv("ALLOCATION_COUNT_FILE");
    for (size_t at = 0; name != NULL && name[at] != 0 && at + 1 < sizeof path; ++at) {
        path[at] = name[at];
    }
    signal(SIGUSR2, write_count);
}
