#!/bin/sh
# Makes a qemu-written VHDX fixture and its raw conversion.
#   make_fixture.sh OUT_BASE SUBFORMAT BLOCK_MIB SIZE_BYTES
set -eu
out=$1 sub=$2 block=$3 size=$4
rm -f "$out.vhdx" "$out.raw"
qemu-img create -q -f vhdx -o subformat="$sub",block_size="${block}M" "$out.vhdx" "$size"
qemu-io -f vhdx -c 'write -P 0x21 0 4096' -c "write -P 0x42 $((block * 1048576 - 512)) 1024" \
  -c "write -P 0x63 $((size / 2)) 70000" -c "write -P 0x7e $((size - 512)) 512" "$out.vhdx" >/dev/null
qemu-img convert -f vhdx -O raw "$out.vhdx" "$out.raw"
