// raster.h - the tolimage commands that look at what the engine is handed:
// the host raster that TLC_IMAGE_E builds from a file.
#pragma once

// tolimage raster FILE OUT: writes the host raster of FILE as a binary PBM
// (P4), a set bit dark as in the raster, or for OUT.png as a 1-bit
// greyscale PNG, dark pixels black.  0 on success, 1 when FILE gives no
// raster or OUT cannot be written.
int RasterCommand(const char *file, const char *out);

// tolimage show FILE: draws the host raster of FILE in the terminal with
// quadrant block characters, scaled down to the terminal's width (COLUMNS,
// else the terminal's own width, else 80), dark pixels as ink.  0 on
// success, 1 when FILE gives no raster.
int ShowCommand(const char *file);
