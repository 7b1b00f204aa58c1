"""A Pillow plugin that opens RAS files through TolImage:

    import tolimage.pillow
    tolimage.pillow.register()
    picture = PIL.Image.open("pages.ras")     # image 0; seek(n) for image n

Pillow reads BMP, PCX and TIFF itself; this plugin takes only files that
begin with RAS's "bild" or "bimp".
"""

import os
import tempfile
import weakref

from PIL import Image as PILImage
from PIL import ImageFile, ImagePalette

from . import count, load

FORMAT = "TOLIMAGE_RAS"


def _accept(prefix):
    return prefix[:4] in (b"bild", b"bimp")


class RasImageFile(ImageFile.ImageFile):
    format = FORMAT
    format_description = "RAS multi-image raster (TolImage)"

    def _open(self):
        path = self.filename if isinstance(self.filename, str) and os.path.isfile(self.filename) else None
        if path is None:
            # The library reads files by name: a file object's bytes go to a
            # temporary file that lives as long as this image.
            self.fp.seek(0)
            with tempfile.NamedTemporaryFile(suffix=".ras", delete=False) as copy:
                copy.write(self.fp.read())
            path = copy.name
            weakref.finalize(self, os.unlink, path)
        self._tolimage_path = path
        self._frames = None
        self._frame = 0
        self._select(0)

    def _select(self, number):
        picture = load(self._tolimage_path, number).to_pil()
        self._picture = picture
        self._size = picture.size
        # Pillow 10.1 made the mode a property over _mode.
        if isinstance(getattr(PILImage.Image, "mode", None), property):
            self._mode = picture.mode
        else:
            self.mode = picture.mode
        self.palette = ImagePalette.raw("RGB", bytes(picture.getpalette("RGB"))) if picture.mode == "P" else None
        self.info.update(picture.info)
        self.tile = []
        self.im = None

    @property
    def n_frames(self):
        if self._frames is None:
            self._frames = count(self._tolimage_path)
        return self._frames

    @property
    def is_animated(self):
        return self.n_frames > 1

    def seek(self, frame):
        if not self._seek_check(frame):
            return
        self._select(frame)
        self._frame = frame

    def tell(self):
        return self._frame

    def load(self):
        if self.im is None:
            self.im = self._picture.im
        return PILImage.Image.load(self)


def register():
    """Makes PIL.Image.open() open RAS files through TolImage."""
    PILImage.register_open(FORMAT, RasImageFile, _accept)
    PILImage.register_extension(FORMAT, ".ras")
