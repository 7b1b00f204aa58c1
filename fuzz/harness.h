// harness.h - one run of the library's image entry on untrusted bytes,
// shared by the fuzz target and the replay of kept crashers.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes the bytes to a scratch file and loads it: image 0, a walk of a
// few steps, a numbered image, and the record hand-over where built.
// Every block it gets is freed.
void RunImageHarness(const uint8_t *data, size_t size);
