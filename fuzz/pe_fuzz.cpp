// libFuzzer target of the PE machine reader: any bytes, read in memory and
// through a source that serves short reads as failures.
#include <cstdint>
#include <cstdlib>

#include "platform/pe/pe_machine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint16_t machine = 0;
    const kx::pe::PeStatus status = kx::pe::ReadPeMachine(data, size, &machine);
    // An accepted image has its signature where its DOS header points.
    if (status == kx::pe::PeStatus::kOk) {
        const uint32_t nt = data[0x3C] | data[0x3D] << 8 | data[0x3E] << 16 | uint32_t(data[0x3F]) << 24;
        if (size < 24 || nt > size - 24 || data[nt] != 'P' || data[nt + 1] != 'E') std::abort();
        if (machine != (data[nt + 4] | data[nt + 5] << 8)) std::abort();
    }
    return 0;
}
