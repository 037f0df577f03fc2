// Result codes of the VHD library. 0 is success. The library's own failures
// carry the numbers the platform gives its virtual-disk errors, so that a
// Windows caller can hand them on unchanged; failures of the underlying file
// come through as the file layer reported them.
#pragma once

#include <cstdint>

namespace kx::vhd {

using Status = uint32_t;

inline constexpr Status kOk = 0;

// General codes, numbered as the platform numbers them.
inline constexpr Status kFileNotFound = 2;
inline constexpr Status kAccessDenied = 5;
inline constexpr Status kOutOfMemory = 8;
inline constexpr Status kWriteProtect = 19;
inline constexpr Status kHandleEof = 38;
inline constexpr Status kFileExists = 80;
inline constexpr Status kInvalidParameter = 87;

// The virtual-disk codes.
inline constexpr Status kFooterMissing = 0xC03A0001;
inline constexpr Status kFooterChecksumMismatch = 0xC03A0002;
inline constexpr Status kFooterCorrupt = 0xC03A0003;
inline constexpr Status kFormatUnknown = 0xC03A0004;
inline constexpr Status kFormatUnsupportedVersion = 0xC03A0005;
inline constexpr Status kSparseHeaderChecksumMismatch = 0xC03A0006;
inline constexpr Status kSparseHeaderUnsupportedVersion = 0xC03A0007;
inline constexpr Status kSparseHeaderCorrupt = 0xC03A0008;
inline constexpr Status kBlockAllocationFailure = 0xC03A0009;
inline constexpr Status kBlockAllocationTableCorrupt = 0xC03A000A;
inline constexpr Status kInvalidBlockSize = 0xC03A000B;
inline constexpr Status kBitmapMismatch = 0xC03A000C;
inline constexpr Status kParentNotFound = 0xC03A000D;
inline constexpr Status kChildParentIdMismatch = 0xC03A000E;
inline constexpr Status kMetadataReadFailure = 0xC03A0010;
inline constexpr Status kMetadataWriteFailure = 0xC03A0011;
inline constexpr Status kInvalidSize = 0xC03A0012;
inline constexpr Status kInvalidFileSize = 0xC03A0013;
inline constexpr Status kNotVirtualDisk = 0xC03A0015;
inline constexpr Status kChildParentSizeMismatch = 0xC03A0017;
inline constexpr Status kChainCycleDetected = 0xC03A0018;
inline constexpr Status kChainErrorInParent = 0xC03A0019;
inline constexpr Status kVirtualDiskLimitation = 0xC03A001A;
inline constexpr Status kInvalidType = 0xC03A001B;

}  // namespace kx::vhd
