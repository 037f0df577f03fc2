"""Reads a VHD through libvhdi and writes the disk's bytes to a raw file.
usage: vhdi_read.py OUT.raw IMAGE [PARENT [GRANDPARENT ...]]   (the parent chain, nearest first)"""
import sys

import pyvhdi

files = []
for path in sys.argv[2:]:
    files.append(pyvhdi.file())
    files[-1].open(path)
for child, parent in reversed(list(zip(files, files[1:]))):  # linked from the root of the chain up
    child.set_parent(parent)
with open(sys.argv[1], "wb") as o:
    o.write(files[0].read_buffer_at_offset(files[0].get_media_size(), 0))
