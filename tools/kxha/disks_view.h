// How kxha disks shows the library's disk and volume records: a table, or
// JSON. Kept apart from the command so that it can be checked in-process
// against a stand-in disk service.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/disk_vds.h"

namespace kxha {

// One block per disk (number, size, style, identity) with its extents, each
// named by its volume's letter when the volume is listed; then the volumes.
std::wstring DisksTable(const std::vector<VdsDiskRecord>& disks, const std::vector<VdsVolumeRecord>& volumes);
// {"disks": [{"number", "size", "style", "signature", "guid", "extents": [{"offset", "volume"}]}],
//  "volumes": [{"guid", "letter", "flags", "dynamic"}]}
std::wstring DisksJson(const std::vector<VdsDiskRecord>& disks, const std::vector<VdsVolumeRecord>& volumes);
// "raw", "MBR", "GPT".
const wchar_t* StyleName(unsigned long style);

}  // namespace kxha
