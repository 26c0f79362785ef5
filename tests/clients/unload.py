"""A runtime that closes the library at its end, as Mono does, leaves the threads of the machine their code: unload.py
LIBRARY."""
import _ctypes
import ctypes
import sys
import threading
import time

library = ctypes.CDLL(sys.argv[1])


def use() -> None:
    hub = library.vox_hub_create()
    assert hub > 0 and library.vox_hub_open(hub) >= 0
    assert library.vox_destroy(hub) >= 0


# By a thread that has ended: what it has left in the library does not hold it any more.
user = threading.Thread(target=use)
user.start()
user.join()
_ctypes.dlclose(library._handle)
time.sleep(0.3)  # real: the machine's threads wake up meanwhile
