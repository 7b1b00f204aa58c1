"""The shared library through ctypes: finding it, its exports, and the
error callback that turns the library's reports into exceptions."""

import ctypes
import os
import sys
import threading

_WINDOWS = sys.platform == "win32"
_NAME = "tolimage.dll" if _WINDOWS else "libtolimage.so.3"
# The library writes the path a dialog chose into the name it is given.
NAME_BYTES = 260
RECORD_BYTES = 1104


def _candidates():
    """Where the library may be, in the order it is looked for: the
    environment's choice, beside the package, the source tree's build
    folder, and last the system's own search (no folder)."""
    chosen = os.environ.get("TOLIMAGE_LIBRARY")
    if chosen:
        return [chosen]
    here = os.path.dirname(os.path.realpath(__file__))
    tree = os.path.dirname(os.path.dirname(here))
    return [os.path.join(here, _NAME), os.path.join(tree, "build", _NAME), _NAME]


def _load():
    loader = ctypes.WinDLL if _WINDOWS else ctypes.CDLL
    tried = []
    for path in _candidates():
        if os.path.dirname(path) and not os.path.exists(path):
            tried.append(path)
            continue
        try:
            return loader(path)
        except OSError as error:
            tried.append(f"{path} ({error})")
    raise ImportError("tolimage: the TolImage library was not found; set TOLIMAGE_LIBRARY to its path. Tried: "
                      + ", ".join(tried))


lib = _load()
# Exports and callbacks are __stdcall on Windows, plain C elsewhere.
_FUNCTYPE = ctypes.WINFUNCTYPE if _WINDOWS else ctypes.CFUNCTYPE
_memory = ctypes.WinDLL("kernel32") if _WINDOWS else lib

HANDLE = ctypes.c_void_p
ERROR_CALLBACK = _FUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int32)
FILE_DIALOG = _FUNCTYPE(ctypes.c_int32, ctypes.c_void_p)


def _declare(module, name, result, *arguments):
    function = getattr(module, name)
    function.restype = result
    function.argtypes = list(arguments)
    return function


TL_IMAGE_E = _declare(lib, "TL_IMAGE_E", HANDLE, ctypes.c_char_p, ctypes.c_int32)
TLC_IMAGE_E = _declare(lib, "TLC_IMAGE_E", HANDLE, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int32)
ERROR_FLAGS_E = _declare(lib, "ERROR_FLAGS_E", None, ctypes.c_int32, ctypes.c_int32, ctypes.c_int32, ERROR_CALLBACK)
TL_ERRORSTATUS_E = _declare(lib, "TL_ERRORSTATUS_E", ctypes.c_int32)
TlSetFileDialog = _declare(lib, "TlSetFileDialog", FILE_DIALOG, FILE_DIALOG)
GlobalLock = _declare(_memory, "GlobalLock", ctypes.c_void_p, HANDLE)
GlobalUnlock = _declare(_memory, "GlobalUnlock", ctypes.c_int32, HANDLE)
GlobalFree = _declare(_memory, "GlobalFree", HANDLE, HANDLE)

# The library takes one call at a time, and its error state is one for the
# process.  This lock keeps each of the package's calls -- with the clearing
# and reading of that state around it, or a whole walk -- from mixing with
# another thread's.  Reports are kept per thread: the callback runs on the
# thread that made the call.
lock = threading.Lock()
_heard = threading.local()


def _hear(title, text, with_system_text):
    reports = getattr(_heard, "reports", None)
    if reports is not None:
        reports.append((title.decode("latin-1") if title else "", text.decode("latin-1") if text else ""))


def _cancel(request):
    return 0


# Kept referenced for as long as the library may call them.
_callback = ERROR_CALLBACK(_hear)
_dialog = FILE_DIALOG(_cancel)
# Carry on after a failure, no message box, no polling of abort keys, every
# report to the callback; a missing file's dialog cancels at once.
ERROR_FLAGS_E(1, 0, 0, _callback)
TlSetFileDialog(_dialog)


def start_hearing():
    """Starts the calling thread's list of reports afresh and returns it."""
    _heard.reports = []
    return _heard.reports


def reset():
    """Leaves the reader of the format last read idle.  The library keeps
    each reader's last walk, and a RAS reader that has given a file's last
    image answers the next call for that file with no image; without this
    reset a second load() of a one-image RAS file would find nothing."""
    TL_IMAGE_E(None, 0)


def call(export, *arguments):
    """One call of a loading export, under the lock, with the reader left
    idle after it: the handle it gave (or None) and the reports heard."""
    with lock:
        reports = start_hearing()
        try:
            return export(*arguments), reports
        finally:
            reset()


def name_buffer(path):
    """The path as the library takes it: bytes in a buffer of at least a
    path's size, which the library may write the chosen path into."""
    encoded = os.fsencode(path)
    return ctypes.create_string_buffer(encoded, max(len(encoded) + 1, NAME_BYTES))


def take_block(handle, read, extra_unlocks=0):
    """Gives read() the block's address and returns what it returns; then
    unlocks the block (once more for each lock it came with) and frees it,
    whatever read() did."""
    address = GlobalLock(handle)
    try:
        if not address:
            raise MemoryError("tolimage: a block the library gave could not be locked")
        return read(address)
    finally:
        for _ in range(1 + extra_unlocks):
            GlobalUnlock(handle)
        GlobalFree(handle)
