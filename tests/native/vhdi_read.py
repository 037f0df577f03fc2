"""Reads a VHD through libvhdi and writes the disk's bytes to a raw file.

usage: vhdi_read.py OUT.raw IMAGE [PARENT [GRANDPARENT ...]]
The images after the first are its parent chain, nearest first.
"""
import sys

import pyvhdi


def main():
    out, paths = sys.argv[1], sys.argv[2:]
    files = []
    for path in paths:
        f = pyvhdi.file()
        f.open(path)
        files.append(f)
    # Link from the root of the chain upwards.
    for child, parent in reversed(list(zip(files, files[1:]))):
        child.set_parent(parent)
    disk = files[0]
    size = disk.get_media_size()
    with open(out, "wb") as o:
        at = 0
        while at < size:
            n = min(1 << 20, size - at)
            data = disk.read_buffer_at_offset(n, at)
            if len(data) != n:
                sys.exit("short read at %d" % at)
            o.write(data)
            at += n
    for f in files:
        f.close()


if __name__ == "__main__":
    main()
