#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test Kestrix HA.
# Idempotent and quiet when everything is already there.
set -euo pipefail

pkgs=(
  g++-mingw-w64-x86-64-posix   # the cross compiler (posix thread model)
  binutils-mingw-w64-x86-64    # objdump/dlltool for PE checks
  wine64 wine                  # runs the DLL and its tests
  cmake make ninja-build
  googletest                   # sources under /usr/src/googletest
  clang libclang-rt-14-dev     # native sanitizer and libFuzzer builds
  qemu-utils                   # independent VHD writer/checker
  libvhdi-utils python3-libvhdi  # independent VHD reader
  python3-hivex libhivex-bin     # independent registry hive writer/reader
  libregf-utils reglookup        # independent registry hive readers
  gcab                           # cabinets of real files for the driver extraction tests
  gcc-mingw-w64-i686-posix       # a 32-bit PE (x86 hal.dll) for the platform detection tests
  fdisk ntfs-3g                  # real partition tables (sfdisk) and NTFS boot sectors (mkntfs)
  xorriso genisoimage            # independent ISO 9660 / Joliet writers and readers
  dnsmasq                        # a DNS server on a private loopback for the resolver tests
  util-linux                     # unshare, for that private network namespace
  python3
  procps                       # pgrep, used to keep Wine services detached
)

missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
