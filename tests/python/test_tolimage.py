"""The Python package against the library and the tool just built: every
sample (and a few fixtures of other depths) as the tool gives it, errors,
the Pillow plugin, threads, and the package installed by pip."""

import io
import os
import re
import subprocess
import sys
import threading

import numpy as np
import pytest
from PIL import Image

import tolimage
import tolimage.pillow

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SAMPLES = os.path.join(ROOT, "samples")
FIXTURES = os.path.join(ROOT, "tests", "fixtures")
TOOL = os.environ.get("TOLIMAGE_TOOL", os.path.join(ROOT, "build", "cli", "tolimage"))
FILES = [os.path.join(SAMPLES, name) for name in ("sample.bmp", "sample.pcx", "sample.tif", "colour16.ras", "multi.ras")] \
    + [os.path.join(FIXTURES, name) for name in ("ras/fixed_8bit.ras", "ras/four_bits.ras", "bmp/pillow_8bit.bmp",
                                                 "pcx/netpbm_4plane.pcx", "bmp/white_first_1bit.bmp")]


def tool(*arguments):
    return subprocess.run([TOOL, *arguments], capture_output=True, text=True)


def rgb(picture):
    return np.asarray(picture.convert("RGB"))


@pytest.mark.parametrize("path", FILES, ids=os.path.basename)
def test_every_image_as_the_tool_gives_it(path, tmp_path):
    info = re.search(r": (\w+), (\d+) x (\d+), (\d+) bpp, (\d+) colours, (\d+) x (\d+) pixels/m(?:, (\d+) image)?",
                     tool("info", path).stdout).groups()
    image = tolimage.load(path)
    assert (image.format, image.width, image.height, image.bits_per_pixel, len(image.palette)) \
        == (info[0], *map(int, info[1:5]))
    assert image.resolution == (int(info[5]), int(info[6]))
    assert image.pixels.shape == (image.height, image.width) and image.pixels.dtype == np.uint8
    # Netpbm and PNG from the tool, image by image, against what the package gives.
    kind = "pbm" if image.bits_per_pixel == 1 else "ppm"
    assert tool("convert", path, str(tmp_path / f"all.{kind}"), "--all").returncode == 0
    assert tool("convert", path, str(tmp_path / "all.png"), "--all").returncode == 0
    walked = list(tolimage.images(path))
    assert len(walked) == tolimage.count(path) == int(info[7] or 1)
    for number, each in enumerate(walked):
        netpbm = Image.open(tmp_path / f"all-{number}.{kind}")
        png = Image.open(tmp_path / f"all-{number}.png")
        assert (rgb(each.to_pil()) == rgb(netpbm)).all() and (rgb(png) == rgb(netpbm)).all()
        assert png.mode == {1: "1", 4: "P", 8: "P"}[each.bits_per_pixel]
        assert (each.pixels == tolimage.load(path, number).pixels).all()
        dpi = png.info.get("dpi", (0, 0))
        assert dpi == pytest.approx(tuple(value * 0.0254 for value in each.resolution), abs=0.01)
    # The raster the engine is handed, as PBM and as PNG.
    for name in ("raster.pbm", "raster.png"):
        assert tool("raster", path, str(tmp_path / name)).returncode == 0
        assert (tolimage.raster(path) == ~np.asarray(Image.open(tmp_path / name).convert("1"))).all()


def test_failures_raise_and_print_nothing(tmp_path, capfd):
    (tmp_path / "one.bin").write_bytes(b"B")
    (tmp_path / "text.txt").write_text("hello")
    with pytest.raises(FileNotFoundError):
        tolimage.load(tmp_path / "missing.tif")
    with pytest.raises(tolimage.UnknownFormat):
        tolimage.count(tmp_path / "text.txt")
    with pytest.raises(tolimage.Error) as caught:
        tolimage.raster(tmp_path / "one.bin")
    assert caught.value.reports == [("ReadIMG", str(tmp_path / "one.bin"))]
    with pytest.raises(tolimage.Error) as caught:
        tolimage.load(os.path.join(FIXTURES, "tiff", "refuse_tiled.tif"))
    assert caught.value.reports == [("TIFF Read", "Missing tag value StripOffsets")]
    with pytest.raises(IndexError):
        tolimage.load(os.path.join(SAMPLES, "multi.ras"), 3)
    assert tolimage.load(os.path.join(SAMPLES, "multi.ras"), 2).width == 226
    assert capfd.readouterr() == ("", "")


def test_pillow_opens_ras_files():
    tolimage.pillow.register()
    path = os.path.join(SAMPLES, "multi.ras")
    expected = [image.to_pil() for image in tolimage.images(path)]
    for source in (path, io.BytesIO(open(path, "rb").read())):
        picture = Image.open(source)
        assert (picture.format, picture.n_frames) == (tolimage.pillow.FORMAT, 3)
        picture.seek(2)
        assert (rgb(picture) == rgb(expected[2])).all()
    colours = Image.open(os.path.join(SAMPLES, "colour16.ras"))
    assert colours.mode == "P" and (rgb(colours) == rgb(tolimage.load(os.path.join(SAMPLES, "colour16.ras")).to_pil())).all()


def test_threads_each_get_their_own_results_and_reports(tmp_path):
    (tmp_path / "one.bin").write_bytes(b"B")
    jobs = [lambda: tolimage.load(os.path.join(SAMPLES, "sample.tif")).pixels.sum(),
            lambda: [image.width for image in tolimage.images(os.path.join(SAMPLES, "multi.ras"))],
            lambda: tolimage.raster(os.path.join(SAMPLES, "colour16.ras")).sum()]

    def failing():
        try:
            tolimage.load(tmp_path / "one.bin")
        except tolimage.Error as error:
            return error.reports
    jobs.append(failing)
    expected = [job() for job in jobs]
    results = {}

    def run(index):
        results[index] = [jobs[index % len(jobs)]() for _ in range(40)]
    threads = [threading.Thread(target=run, args=(index,)) for index in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for index in range(8):
        assert all(np.array_equal(got, expected[index % len(jobs)]) for got in results[index])


def test_pip_installs_a_package_that_works_from_anywhere(tmp_path):
    subprocess.run([sys.executable, "-m", "pip", "install", "-q", "--no-index", "--no-deps", "--target", str(tmp_path / "site"),
                    os.path.join(ROOT, "python")], check=True, cwd=tmp_path)
    environment = {key: value for key, value in os.environ.items() if key not in ("TOLIMAGE_LIBRARY", "PYTHONPATH")}
    shape = subprocess.run([sys.executable, "-c", "import tolimage; print(tolimage.load('multi.ras').pixels.shape)"],
                           cwd=SAMPLES, env=dict(environment, PYTHONPATH=str(tmp_path / "site")),
                           capture_output=True, text=True, check=True).stdout
    assert shape == "(94, 265)\n"
