"""The package's own build backend: it writes the wheel (and the source
archive) itself, so that `pip install ./python` needs nothing from a package
index -- pip builds in an environment of its own, which holds no setuptools
unless it can download them.  The package is pure Python, so the wheel is
the package's modules and its metadata, zipped; with the shared library
beside them when one is built (TOLIMAGE_LIBRARY, or the source tree's
build/ folder), so that the installed package works from any folder.  Such
a wheel is tagged for this platform only."""

import base64
import hashlib
import io
import os
import sysconfig
import tarfile
import tomllib
import zipfile

_HERE = os.path.dirname(os.path.abspath(__file__))


def _project():
    with open(os.path.join(_HERE, "pyproject.toml"), "rb") as file:
        return tomllib.load(file)["project"]


def _metadata(project):
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {project['version']}",
             f"Summary: {project['description']}", f"Requires-Python: {project['requires-python']}"]
    lines += [f"Requires-Dist: {requirement}" for requirement in project.get("dependencies", [])]
    for extra, requirements in project.get("optional-dependencies", {}).items():
        lines.append(f"Provides-Extra: {extra}")
        lines += [f'Requires-Dist: {requirement}; extra == "{extra}"' for requirement in requirements]
    with open(os.path.join(_HERE, project["readme"]), encoding="utf-8") as file:
        lines += ["Description-Content-Type: text/markdown", "", file.read()]
    return "\n".join(lines)


def _modules():
    folder = os.path.join(_HERE, "tolimage")
    return sorted(f"tolimage/{name}" for name in os.listdir(folder) if name.endswith(".py"))


def _library():
    """The built shared library to put in the wheel, and its name there."""
    name = "tolimage.dll" if os.name == "nt" else "libtolimage.so.3"
    chosen = os.environ.get("TOLIMAGE_LIBRARY")
    for path in [chosen] if chosen else [os.path.join(os.path.dirname(_HERE), "build", name)]:
        if os.path.isfile(path):
            return os.path.realpath(path), name
    return None, name


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    files = {name: open(os.path.join(_HERE, name), "rb").read() for name in _modules()}
    library, name = _library()
    tag = "py3-none-any"
    if library:
        with open(library, "rb") as file:
            files[f"tolimage/{name}"] = file.read()
        tag = "py3-none-" + sysconfig.get_platform().replace("-", "_").replace(".", "_")
    files[f"{stem}.dist-info/METADATA"] = _metadata(project).encode()
    files[f"{stem}.dist-info/WHEEL"] = (f"Wheel-Version: 1.0\nGenerator: tolimage build_backend\n"
                                        f"Root-Is-Purelib: {'false' if library else 'true'}\nTag: {tag}\n").encode()
    record = []
    for name, data in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        record.append(f"{name},sha256={digest},{len(data)}")
    record.append(f"{stem}.dist-info/RECORD,,")
    files[f"{stem}.dist-info/RECORD"] = ("\n".join(record) + "\n").encode()
    wheel = f"{stem}-{tag}.whl"
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel), "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data in files.items():
            archive.writestr(name, data)
    return wheel


def build_sdist(sdist_directory, config_settings=None):
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    with tarfile.open(os.path.join(sdist_directory, f"{stem}.tar.gz"), "w:gz") as archive:
        for name in ["pyproject.toml", "build_backend.py", project["readme"]] + _modules():
            archive.add(os.path.join(_HERE, name), f"{stem}/{name}")
        info = tarfile.TarInfo(f"{stem}/PKG-INFO")
        data = _metadata(project).encode()
        info.size = len(data)
        archive.addfile(info, io.BytesIO(data))
    return f"{stem}.tar.gz"
