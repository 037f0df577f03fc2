#!/bin/sh
# Driver cabinets and hal.dll images for the boot driver tests, made from
# real files: each cabinet's members are kept beside it (<cab>.d/<file>) so
# that a test compares what lands in the guest with what gcab packed.
#   sp2.cab     IntelIde.sys symmpi.sys lsi_scsi.sys (contents "sp2 ...")
#   sp1.cab     IntelIde.sys symmpi.sys (contents "sp1 ...")
#   driver.cab  IntelIde.sys symmpi.sys lsi_scsi.sys (contents "driver ...")
#   other.cab   other.sys only: a cabinet lacking the drivers
#   hal64.dll / hal32.dll   tiny DLLs of the x64 and x86 cross compilers
# usage: make_driver_fixtures.sh <out folder> <tiny.c>
set -eu
out=$1
tiny=$2
rm -rf "$out"
mkdir -p "$out"
for cab in sp2 sp1 driver other; do
  mkdir -p "$out/$cab.cab.d"
  case $cab in
    other) files=other.sys ;;
    sp1) files="IntelIde.sys symmpi.sys" ;;
    *) files="IntelIde.sys symmpi.sys lsi_scsi.sys" ;;
  esac
  for f in $files; do
    # Distinct, not too regular contents of a few kilobytes.
    awk -v c="$cab" -v f="$f" 'BEGIN { for (i = 0; i < 300; i++) printf "%s %s line %d %d\n", c, f, i, (i * 7919) % 1013 }' \
      >"$out/$cab.cab.d/$f"
  done
  (cd "$out/$cab.cab.d" && gcab -c ../$cab.cab $files)
done
x86_64-w64-mingw32-gcc -shared -s -nostdlib -Wl,--entry=0 -o "$out/hal64.dll" "$tiny"
i686-w64-mingw32-gcc -shared -s -nostdlib -Wl,--entry=0 -o "$out/hal32.dll" "$tiny"
