/*
 * load_loop.c - whole loads through the library alone, file name to
 * bitmap block, timed the same way on every system the library runs on:
 * Linux, and the 32- and 64-bit DLLs under Windows or Wine.  No peer, no
 * other library: what differs between two runs on the same files is the
 * build and the system under it.
 *
 *   load_loop [-r ROUNDS] [-t MILLISECONDS] FILE...
 *
 * For each file: ROUNDS rounds (default 7) of loads repeated for at least
 * MILLISECONDS (default 150); the best round's wall time a load, in ms.
 * load_bench writes the pages (TL_BENCH_KEEP=1 keeps them).
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"

#if defined(_WIN32)
static double Now(void) {
    LARGE_INTEGER count, frequency;
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    return (double)count.QuadPart / (double)frequency.QuadPart;
}
#else
#include <time.h>
static double Now(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + now.tv_nsec * 1e-9;
}
#endif

/* One load, the block freed; 0 when the file gave no image. */
static int Load(const char *path) {
    char name[260];
    if (strlen(path) >= sizeof name) return 0;
    strcpy(name, path);
    TL_HANDLE block = TL_IMAGE_E(name, 0);
    if (!block) return 0;
    GlobalFree(block);
    return 1;
}

int main(int argc, char **argv) {
    int rounds = 7, first = 1;
    double seconds = 0.150;
    for (; first + 1 < argc && argv[first][0] == '-'; first += 2) {
        if (strcmp(argv[first], "-r") == 0) rounds = atoi(argv[first + 1]) > 0 ? atoi(argv[first + 1]) : 1;
        else if (strcmp(argv[first], "-t") == 0) seconds = (atoi(argv[first + 1]) > 0 ? atoi(argv[first + 1]) : 1) / 1000.0;
    }
    ERROR_FLAGS_E(1, 0, 0, NULL);
    for (int i = first; i < argc; ++i) {
        if (!Load(argv[i])) {
            fprintf(stderr, "load_loop: %s: no image\n", argv[i]);
            return 1;
        }
        double best = 1e30;
        for (int r = 0; r < rounds; ++r) {
            int loads = 0;
            const double start = Now();
            double elapsed;
            do {
                Load(argv[i]);
                ++loads;
            } while ((elapsed = Now() - start) < seconds);
            if (elapsed / loads < best) best = elapsed / loads;
        }
        const char *base = strrchr(argv[i], '/');
        printf("%-28s %8.3f\n", base ? base + 1 : argv[i], best * 1e3);
        fflush(stdout);
    }
    return 0;
}
