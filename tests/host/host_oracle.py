#!/usr/bin/python3
"""What the machine's own tools say about the host, as plain lines the Wine
tests read back: the adapters and addresses of `ip -j addr` (loopback left
out), the logical processors and packages of /proc/cpuinfo, and MemTotal of
/proc/meminfo in bytes."""
import json
import subprocess
import sys

out = sys.argv[1]
lines = []
for link in json.loads(subprocess.check_output(["ip", "-j", "addr"])):
    if link.get("link_type") == "loopback":
        continue
    name = link["ifname"]
    lines.append(f"adapter {name} {link.get('address', '')}")
    for a in link.get("addr_info", []):
        lines.append(f"addr {name} {a['family']} {a['local']} {a['prefixlen']}")
logical, packages = 0, set()
with open("/proc/cpuinfo") as f:
    for line in f:
        key, _, value = line.partition(":")
        key = key.strip()
        if key == "processor":
            logical += 1
        elif key == "physical id":
            packages.add(value.strip())
lines.append(f"cpu {logical} {max(len(packages), 1)}")
with open("/proc/meminfo") as f:
    for line in f:
        if line.startswith("MemTotal:"):
            lines.append(f"mem {int(line.split()[1]) * 1024}")
with open(out, "w") as f:
    f.write("\n".join(lines) + "\n")
