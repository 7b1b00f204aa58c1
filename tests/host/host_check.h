/* What the C host programs share: a CHECK that counts failures, readers of
 * little-endian fields, and the closing verdict. */
#ifndef TL_HOST_CHECK_H
#define TL_HOST_CHECK_H

#include <stdint.h>
#include <stdio.h>

static int failures = 0;

#define CHECK(cond)                                                            \
    do {                                                                       \
        if (!(cond)) {                                                         \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                        \
        }                                                                      \
    } while (0)

static inline uint32_t Le32(const unsigned char *p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | ((uint32_t)p[3] << 24);
}
static inline int Le16(const unsigned char *p) { return (int16_t)(p[0] | (p[1] << 8)); }

/* The exit code of a host: 0 when every check passed. */
static inline int HostDone(const char *name) {
    if (failures) fprintf(stderr, "%s: %d checks failed\n", name, failures);
    else printf("%s: all checks passed\n", name);
    return failures ? 1 : 0;
}

#endif
