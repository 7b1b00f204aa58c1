/* A 32-bit Windows host that calls every export, and lets the library call
 * back, with the stack pointer 4, 8 and 12 bytes past a 16-byte boundary,
 * as a host built by a compiler that keeps only 4-byte alignment does: each
 * call must give what it gives from an aligned stack (0 bytes past). */
#include <string.h>

#include "tolimage.h"
#include "tolimage_posix.h"
#include "host_check.h"

/* Calls `function`, a __stdcall function of `count` 32-bit arguments, with
 * the stack pointer `skew` bytes past a 16-byte boundary at the call, and
 * returns what it returns in EAX. */
uint32_t CallSkewed(void *function, const uint32_t *arguments, uint32_t count, uint32_t skew);
__asm__(".text\n"
        ".globl _CallSkewed\n"
        "_CallSkewed:\n"
        "  pushl %ebp\n"
        "  movl %esp, %ebp\n"
        "  pushl %esi\n"
        "  pushl %edi\n"
        "  movl 8(%ebp), %eax\n"
        "  movl 12(%ebp), %esi\n"
        "  movl 16(%ebp), %ecx\n"
        "  andl $-16, %esp\n"
        /* pad = (-skew - 4 * count) & 15, so that after the pushes the stack
           pointer stands `skew` past a boundary */
        "  leal (%ecx,%ecx), %edi\n"
        "  addl %edi, %edi\n"
        "  addl 20(%ebp), %edi\n"
        "  negl %edi\n"
        "  andl $15, %edi\n"
        "  subl %edi, %esp\n"
        "1:\n"
        "  testl %ecx, %ecx\n"
        "  jz 2f\n"
        "  pushl -4(%esi,%ecx,4)\n"
        "  decl %ecx\n"
        "  jmp 1b\n"
        "2:\n"
        "  call *%eax\n" /* the callee takes its arguments off */
        "  leal -8(%ebp), %esp\n"
        "  popl %edi\n"
        "  popl %esi\n"
        "  popl %ebp\n"
        "  ret\n");

#define ARG(x) ((uint32_t)(uintptr_t)(x))
static uint32_t skew;
#define CALL(function, ...)                                                                    \
    CallSkewed((void *)(function), (const uint32_t[]){__VA_ARGS__},                            \
               sizeof((const uint32_t[]){__VA_ARGS__}) / sizeof(uint32_t), skew)
#define CALL0(function) CallSkewed((void *)(function), NULL, 0, skew)

static uint32_t reports, asked;
static void TL_CALL Report(const char *title, const char *text, int32_t withSystemText) {
    (void)title, (void)text, (void)withSystemText;
    ++reports;
}
static int32_t TL_CALL Cancel(TL_FILE_REQUEST *request) {
    (void)request;
    ++asked;
    return 0;
}

/* FNV-1a over n bytes. */
static uint32_t Digest(const unsigned char *p, size_t n, uint32_t h) {
    while (n--) h = (h ^ *p++) * 16777619u;
    return h;
}

/* A digest of everything the exports give for one stack skew. */
static uint32_t Everything(void) {
    static const char *files[] = {TL_FIXTURES "/tiff/pillow_lzw.tif", TL_FIXTURES "/tiff/photo0_packbits.tif",
                                  TL_SAMPLES "/sample.tif", TL_SAMPLES "/sample.bmp", TL_SAMPLES "/sample.pcx",
                                  TL_SAMPLES "/multi.ras"};
    static const void *records[] = {(void *)TLC_IMAGE_E, (void *)TLL_IMAGE_E, (void *)TLP_IMAGE_E};
    static const void *bitmaps[] = {(void *)TLC_BITMAP_E, (void *)TLL_BITMAP_E, (void *)TLP_BITMAP_E};
    uint32_t h = 2166136261u;
    char name[260], version[8] = "3.3m";
    unsigned char record[TL_RECORD_MIN_SIZE];
    reports = asked = 0;
    CALL(ERROR_FLAGS_E, 1, 0, 0, ARG(Report));
    CALL(TlSetFileDialog, ARG(Cancel));
    h = Digest((const unsigned char *)&(uint32_t){CALL(TOLMAR_VERSION_E, ARG(version))}, 4, h);
    for (size_t f = 0; f < sizeof files / sizeof *files; ++f) {
        strcpy(name, files[f]);
        TL_HANDLE dib = (TL_HANDLE)(uintptr_t)CALL(TL_IMAGE_E, ARG(name), 0);
        CHECK(dib != 0);
        if (!dib) continue;
        const unsigned char *bytes = GlobalLock(dib);
        const uint32_t stride = ((Le32(bytes + 4) * Le16(bytes + 14) + 31) / 32) * 4;
        h = Digest(bytes, 40 + 4 * Le32(bytes + 32) + (size_t)stride * Le32(bytes + 8), h);
        GlobalUnlock(dib);
        for (size_t r = 0; r < 3; ++r) {
            memset(record, 0, sizeof record);
            TL_HANDLE raster = (TL_HANDLE)(uintptr_t)(r == f % 3 ? CALL(records[r], ARG(record), ARG(name), 0)
                                                                  : CALL(bitmaps[r], ARG(record), ARG(dib)));
            CHECK(raster != 0);
            if (!raster) continue;
            const unsigned char *pixels = (const unsigned char *)(uintptr_t)Le32(record + TL_RECORD_RASTER);
            h = Digest(pixels, 4 + (size_t)Le16(pixels) * ((Le16(pixels + 2) + 7) / 8), h);
            GlobalUnlock(raster);
            GlobalFree(raster);
        }
        GlobalFree(dib);
    }
    /* A failure reported to the callback, and a missing file to the dialog. */
    strcpy(name, TL_SAMPLES "/make-bmp.sh");
    h = Digest((const unsigned char *)&(uint32_t){CALL(TL_IMAGE_E, ARG(name), 0)}, 4, h);
    strcpy(name, TL_FIXTURES "/tiff/refuse_tiled.tif");
    CHECK(CALL(TL_IMAGE_E, ARG(name), 0) == 0 && CALL0(TL_ERRORSTATUS_E) == 1 && CALL0(TL_CLEARERROR_E) == 1);
    strcpy(name, TL_FIXTURES "/no-such-file.tif");
    CHECK(CALL(TL_IMAGE_E, ARG(name), 0) == 0);
    CHECK(reports == 1 && asked == 1);
    CALL(TlSetFileDialog, 0);
    return h;
}

int main(void) {
    const uint32_t aligned = Everything();
    for (skew = 4; skew < 16; skew += 4) CHECK(Everything() == aligned);
    return HostDone("host_stack");
}
