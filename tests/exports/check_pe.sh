#!/usr/bin/env bash
# The DLL imports only system DLLs and exports exactly the names of its
# module definition file.
set -euo pipefail
dll=$1 def=$2
dump=$(x86_64-w64-mingw32-objdump -p "$dll")

imports=$(grep -E '^\s*DLL Name:' <<<"$dump" | awk '{print $3}' | sort -u)
echo "imports: $(tr '\n' ' ' <<<"$imports")"
if grep -iE 'libgcc|libstdc|libwinpthread|mingw' <<<"$imports"; then
  echo "FAIL: the DLL depends on a toolchain runtime DLL"; exit 1
fi

# Export names: the lines of the [Ordinal/Name Pointer] Table.
exported=$(awk '/\[Ordinal\/Name Pointer\] Table/{t=1;next} t && /^[ \t]*\[/{print $NF;next} {t=0}' <<<"$dump" | sort)
declared=$(awk 'f&&NF{print $1} /^EXPORTS/{f=1}' "$def" | sort)
if [ "$exported" != "$declared" ]; then
  echo "FAIL: export table differs from the module definition"
  diff <(echo "$declared") <(echo "$exported") || true
  exit 1
fi
echo "exports: $(wc -l <<<"$exported") names, as declared"
