"""TolImage from Python: scanned and faxed document images (BMP, 1-bit PCX,
bilevel TIFF with every fax coding, and multi-image RAS) as NumPy arrays and
Pillow images, read by the TolImage library.

    import tolimage
    page = tolimage.load("scan.tif")        # an Image
    page.pixels                              # uint8 palette indices, top row first
    page.to_pil().save("scan.png")
    for image in tolimage.images("pages.ras"):
        print(image.width, image.height)
    dark = tolimage.raster("scan.tif")       # bool array, True where dark

Failures raise tolimage.Error with the library's reports; nothing is printed
and no dialog or message box comes up.
"""

import ctypes
import errno
import os
import struct

import numpy as np

from . import _library as _tl

__version__ = "3.3.0"
__all__ = ["Error", "UnknownFormat", "Image", "load", "images", "count", "raster"]

# Bitmaps of more than this many pixel bytes are not pages of ours.
_MAX_PIXEL_BYTES = 1 << 30


class Error(Exception):
    """The library could not give the image.  `reports` holds its reports
    as (title, text) pairs, in the order it made them; it may be empty when
    a file's contents were refused without one."""

    def __init__(self, message, reports=()):
        self.reports = list(reports)
        heard = "; ".join(f"{title}: {text}" for title, text in self.reports)
        super().__init__(f"{message} ({heard})" if heard else message)


class UnknownFormat(Error):
    """The file's first bytes name no format the library reads."""


def _format_of(path):
    """The format the file's first bytes name, as the library recognises it,
    or None.  Opening the file here raises FileNotFoundError for a missing
    one before the library would offer its file dialog."""
    with open(path, "rb") as file:
        head = file.read(4)
    if head[:2] in (b"\x0a\x00", b"\x0a\x02", b"\x0a\x03", b"\x0a\x05"):
        return "PCX"
    if head[:2] == b"BM":
        return "BMP"
    if head[:2] in (b"II", b"MM"):
        return "TIFF"
    return "RAS" if head in (b"bild", b"bimp") else None


def _failure(path, format, reports, number=0):
    if reports:
        return Error(f"{path}: not loaded", reports)
    if not os.path.exists(path):
        return FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)
    if format is None:
        return UnknownFormat(f"{path}: not a BMP, PCX, TIFF or RAS file")
    if number > 0:
        return IndexError(f"{path}: no image {number}")
    return Error(f"{path}: no image")


class Image:
    """One image as the library read it.

    width, height    pixels
    bits_per_pixel   1, 2, 4 or 8 (indexed), 24 or 32 (colour)
    palette          uint8 array of (red, green, blue) rows
    resolution       (x, y) in pixels per metre, 0 where the file gives none
    format           "BMP", "PCX", "TIFF" or "RAS"
    pixels           uint8 array, top row first: (height, width) palette
                     indices, or (height, width, 3) RGB for 24 and 32 bits
    """

    def __init__(self, width, height, bits_per_pixel, palette, resolution, format, pixels):
        self.width, self.height, self.bits_per_pixel = width, height, bits_per_pixel
        self.palette, self.resolution, self.format, self.pixels = palette, resolution, format, pixels

    def __repr__(self):
        return (f"<tolimage.Image {self.format} {self.width}x{self.height} {self.bits_per_pixel} bpp, "
                f"{len(self.palette)} colours>")

    def to_pil(self):
        """A Pillow image: mode "1" for a black-and-white image, "L" for one
        whose palette is all greys, "P" with the palette otherwise, "RGB"
        for colour pixels.  Indices past the palette show black."""
        from PIL import Image as PILImage

        if self.pixels.ndim == 3:
            picture = PILImage.fromarray(self.pixels, "RGB")
        else:
            colours = np.zeros((256, 3), np.uint8)
            colours[:min(len(self.palette), 256)] = self.palette[:256]
            used = colours[:1 << self.bits_per_pixel]
            grey = bool((used == used[:, :1]).all())
            if self.bits_per_pixel == 1 and grey and set(used[:, 0].tolist()) == {0, 255}:
                picture = PILImage.fromarray(used[self.pixels, 0] == 255)
            elif grey:
                picture = PILImage.fromarray(used[self.pixels, 0], "L")
            else:
                picture = PILImage.fromarray(self.pixels, "P")
                picture.putpalette(used.tobytes())
        if self.resolution[0] > 0 and self.resolution[1] > 0:
            picture.info["dpi"] = tuple(value * 0.0254 for value in self.resolution)
        return picture


def _indices(rows, width, bits):
    """Unpacks rows of 1, 2, 4 or 8-bit pixels, leftmost in the top bits."""
    if bits == 8:
        return rows[:, :width].copy()
    shifts = np.arange(8 - bits, -1, -bits, dtype=np.uint8)
    unpacked = (rows[:, :, None] >> shifts) & np.uint8((1 << bits) - 1)
    return np.ascontiguousarray(unpacked.reshape(rows.shape[0], -1)[:, :width])


def _image_at(address, format):
    """Reads the bitmap block at `address`: its header, palette and rows,
    bottom row first unless the height is negative.  Only the bytes the
    header promises are read: a biSizeImage below the rows' size (a BMP file
    may say so) gives zero pixels past it, as the block holds no more."""
    (_, width, height, _, bits, compression, size_image, x_ppm, y_ppm,
     colours, _) = struct.unpack("<IiiHHIIiiII", ctypes.string_at(address, 40))
    rows = abs(height)
    if width < 0 or colours > 65536 or compression != 0 or bits not in (1, 2, 4, 8, 24, 32):
        raise Error(f"{format} bitmap of {bits} bits per pixel, compression {compression}: no array for it")
    stride = (width * bits + 31) // 32 * 4
    needed = stride * rows
    if needed > _MAX_PIXEL_BYTES:
        raise Error(f"{format} bitmap of {width} x {rows} pixels: too large")
    palette = np.frombuffer(ctypes.string_at(address + 40, 4 * colours), np.uint8).reshape(-1, 4)[:, 2::-1].copy()
    present = min(size_image or needed, needed)
    data = np.zeros(needed, np.uint8)
    data[:present] = np.frombuffer(ctypes.string_at(address + 40 + 4 * colours, present), np.uint8)
    data = data.reshape(rows, stride)
    if height > 0:
        data = data[::-1]
    if bits >= 24:
        pixels = np.ascontiguousarray(data[:, :width * (bits // 8)].reshape(rows, width, bits // 8)[:, :, 2::-1])
    else:
        pixels = _indices(data, width, bits)
    return Image(width, rows, bits, palette, (x_ppm, y_ppm), format, pixels)


def load(path, image=0):
    """Reads image number `image` (counted from 0; only a RAS file has more
    than one) of the file at `path`."""
    path = os.fspath(path)
    format = _format_of(path)
    if image < 0:
        raise ValueError("image numbers count from 0; images() goes through them all")
    handle, reports = _tl.call(_tl.TL_IMAGE_E, _tl.name_buffer(path), image)
    if not handle:
        raise _failure(path, format, reports, image)
    return _tl.take_block(handle, lambda address: _image_at(address, format))


def _walk(path, format):
    """Every image's block, from one walk through the file, under the lock
    from its start to its end, so that no other thread's call breaks in."""
    handles = []
    with _tl.lock:
        reports = _tl.start_hearing()
        # The first image tells the library the file's format, and the
        # reset then leaves that format's reader ready to walk from the start.
        first = _tl.TL_IMAGE_E(_tl.name_buffer(path), 0)
        _tl.reset()
        if first:
            _tl.take_block(first, lambda address: None)
            while handle := _tl.TL_IMAGE_E(_tl.name_buffer(path), -1):
                handles.append(handle)
            _tl.reset()
    if not reports and handles:
        return handles
    for handle in handles:
        _tl.GlobalFree(handle)
    raise _failure(path, format, reports)


def images(path):
    """Every image of the file, in order: several for a RAS file, one for
    any other.  The file is read through once before the first is given."""
    path = os.fspath(path)
    format = _format_of(path)
    handles = _walk(path, format)
    try:
        found = []
        while handles:
            found.append(_tl.take_block(handles.pop(0), lambda address: _image_at(address, format)))
        return iter(found)
    finally:
        for handle in handles:
            _tl.GlobalFree(handle)


def count(path):
    """How many images the file holds."""
    path = os.fspath(path)
    handles = _walk(path, _format_of(path))
    for handle in handles:
        _tl.GlobalFree(handle)
    return len(handles)


def _raster_at(address):
    rows, columns = struct.unpack("<hh", ctypes.string_at(address, 4))
    rows, columns = max(rows, 0), max(columns, 0)
    packed = (columns + 7) // 8
    bits = np.frombuffer(ctypes.string_at(address + 4, rows * packed), np.uint8).reshape(rows, packed)
    return np.unpackbits(bits, axis=1)[:, :columns].astype(bool)


def raster(path):
    """The 1-bit raster the recognition engine is handed for the file's
    first image, as a bool array (height, width), True where dark."""
    path = os.fspath(path)
    format = _format_of(path)
    record = ctypes.create_string_buffer(_tl.RECORD_BYTES)
    handle, reports = _tl.call(_tl.TLC_IMAGE_E, record, _tl.name_buffer(path), 0)
    if not handle:
        raise _failure(path, format, reports)
    # The block comes locked, since the record points into it.
    return _tl.take_block(handle, _raster_at, extra_unlocks=1)
