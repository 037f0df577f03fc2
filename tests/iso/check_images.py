#!/usr/bin/python3
"""Reads the images the ISO tests left behind with outside tools and compares
them with their source trees on this side.

usage: check_images.py OUT_DIR
"""
import os
import re
import subprocess
import sys
import tempfile

out = sys.argv[1]
failures = []


def run(*args):
    p = subprocess.run(args, capture_output=True, text=True, errors="replace")
    return p.stdout + p.stderr


def check(cond, what):
    print(("ok   " if cond else "FAIL ") + what)
    if not cond:
        failures.append(what)


def listing(iso):
    """path -> size (None for folders) of the tree xorriso loads (Joliet)."""
    text = run("xorriso", "-indev", iso, "-find", "/", "-exec", "report_lba", "--")
    files = {}
    for m in re.finditer(r"File data lba: +\d+ , +\d+ , +\d+ , +(\d+) , '(.*)'\n", text):
        files[m.group(2)] = int(m.group(1))  # every section's row carries the whole size
    dirs = run("xorriso", "-indev", iso, "-find", "/", "-type", "d")
    for m in re.finditer(r"^'(/.+)'$", dirs, re.M):
        files[m.group(1)] = None
    for bad in ("FAILURE", "SORRY", "WARNING"):
        check(bad not in text + dirs, f"{os.path.basename(iso)}: xorriso reports no {bad}")
    return files


def source_listing(folder, prefix):
    """The same from the source folder, names cut to Joliet's 64 units."""
    tree = {}
    for top, dirs, files in os.walk(folder):
        rel = os.path.relpath(top, folder)
        parts = [] if rel == "." else rel.split(os.sep)
        base = prefix + "".join("/" + p[:64] for p in parts)
        for d in dirs:
            tree[base + "/" + d[:64]] = None
        for f in files:
            tree[base + "/" + f[:64]] = os.path.getsize(os.path.join(top, f))
    return tree


def structure(iso, volume=None, multi_extent=False):
    name = os.path.basename(iso)
    v = run("isovfy", "-i", iso)
    if multi_extent:
        # isovfy predates multi-extent files: it flags each section that is not
        # the last one (flag 0x80), and must find nothing else.
        odd = [l for l in v.splitlines()[2:] if "Flags=(80)" not in l and l.strip()]
        check(not odd, f"{name}: isovfy finds nothing but the multi-extent sections {odd}")
    else:
        check("No errors found" in v, f"{name}: isovfy finds no errors")
    d = run("isoinfo", "-d", "-i", iso)
    check("Joliet with UCS level 3 found" in d, f"{name}: isoinfo finds Joliet level 3")
    if volume:
        check(f"Volume id: {volume}\n" in d, f"{name}: volume id {volume}")
    plain = run("xorriso", "-read_fs", "nojoliet", "-indev", iso, "-find", "/")
    names = re.findall(r"^'(/.+)'$", plain, re.M)
    check(all(re.fullmatch(r"[A-Z0-9_./]*", n) for n in names), f"{name}: ISO 9660 names are d-characters")
    return names


def same_tree(iso, folder, prefix, volume=None):
    name = os.path.basename(iso)
    structure(iso, volume)
    got = listing(iso)
    want = source_listing(folder, prefix)
    if prefix:
        want[prefix] = None
    check(got == want, f"{name}: xorriso lists the source tree ({len(want)} entries)")
    if got != want:
        print("  only in image:", sorted(set(got) - set(want))[:10])
        print("  only in source:", sorted(set(want) - set(got))[:10])
    with tempfile.TemporaryDirectory() as x:
        run("osirrox", "-indev", iso, "-extract", prefix or "/", x + "/t")
        diff = subprocess.run(["diff", "-r", folder, x + "/t"], capture_output=True, text=True)
        # Names over 64 units are cut in the image, so those two differ by name only.
        lines = [l for l in diff.stdout.splitlines() if "o" * 64 not in l]
        check(not lines, f"{name}: osirrox extracts byte-identical files")
        if lines:
            print("  " + "\n  ".join(lines[:10]))


same_tree(f"{out}/tree.iso", f"{out}/tree", "/tree", "KX_TOOLS")
same_tree(f"{out}/onecall.iso", f"{out}/tree", "/tree", "ONE_CALL")
# Read ahead on worker threads and copied through the helper thread.
same_tree(f"{out}/ahead.iso", f"{out}/ahead", "/ahead")
# isoinfo knows 8-bit character sets only: what Latin-1 cannot show comes out as '_'.
jl = subprocess.run(["isoinfo", "-l", "-J", "-j", "iso8859-1", "-i", f"{out}/tree.iso"],
                    capture_output=True).stdout.decode("latin-1")
check("Ünïcödé _ ___ ____.txt;1" in jl, "tree.iso: isoinfo -J shows the Joliet name")
check("n" * 64 in jl and "o" * 64 in jl and "o" * 65 not in jl, "tree.iso: long names up to 64 units")
plus = listing(f"{out}/tree-plus.iso")
check(plus.get("/exactly 2048.bin") == 2048 and "/tree/level 0" in plus, "tree-plus.iso: the later file is added")

base = listing(f"{out}/base.iso")
check(base == {"/data": None, "/data/f1.txt": 5, "/data/sub": None, "/data/sub/f2.txt": 6},
      f"base.iso: the folder is at the root ({base})")
nobase = listing(f"{out}/nobase.iso")
check(nobase == {"/f1.txt": 5, "/sub": None, "/sub/f2.txt": 6}, f"nobase.iso: its contents are ({nobase})")
three = listing(f"{out}/three.iso")
check(three == {"/a.txt": 1}, f"three.iso: only the file before the missing one ({three})")
structure(f"{out}/missing-source.iso")
check(listing(f"{out}/missing-source.iso") == {}, "missing-source.iso: an empty root")

# The 5 GiB sparse file: two sections, and its bytes at both ends and across the seam.
big = f"{out}/big.iso"
if os.path.exists(big):
    structure(big, multi_extent=True)
    sections = run("xorriso", "-indev", big, "-find", "/big/huge.bin", "-exec", "report_sections", "--")
    rows = re.findall(r"File data lba: +(\d+) , +(\d+) , +(\d+) , +(\d+) , '/big/huge.bin'", sections)
    check([int(r[3]) for r in rows] == [0xFFFFF800, (5 << 30) - 0xFFFFF800], f"big.iso: two sections ({rows})")
    check(listing(big).get("/big/huge.bin") == 5 << 30, "big.iso: 5 GiB in all")
    if rows:
        start = int(rows[0][1]) * 2048
        with open(big, "rb") as img, open(f"{out}/big/huge.bin", "rb") as src:
            for at in (0, 0xFFFFF800 - 8, (5 << 30) - 16, 3 << 30):
                img.seek(start + at)
                src.seek(at)
                check(img.read(16) == src.read(16), f"big.iso: bytes at {at} match the source")
    small = listing(big).get("/big/after.txt")
    check(small == 31, "big.iso: the file after the big one")
    check(os.stat(big).st_blocks * 512 < (64 << 20), "big.iso: the image stayed sparse")
else:
    check(False, "big.iso exists")

print(f"{len(failures)} failures")
sys.exit(1 if failures else 0)
