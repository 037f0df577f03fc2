// The Virtual Disk Service interfaces the library uses, declared here with
// every method in its slot (the system's vds.h of this tool chain carries
// the structures and enumerations but not the interfaces). Only the slots
// the library calls have exact parameter types; the others keep their place
// with parameters of the same size.
#pragma once

#include <windows.h>
#include <objidl.h>
// This tool chain's vds.h ends by including vdslun.h, which repeats several
// of vds.h's own enumerations and structures; nothing here needs it.
#ifndef __vdslun_h__
#define __vdslun_h__
#endif
#include <vds.h>

namespace kx::vds {

// The loader class, started as a local server.
// {9C38ED61-D565-4728-AEEE-C80952F0ECDE}
inline constexpr CLSID kClsidVdsLoader = {0x9C38ED61, 0xD565, 0x4728, {0xAE, 0xEE, 0xC8, 0x09, 0x52, 0xF0, 0xEC, 0xDE}};
// {E0393303-90D4-4A97-AB71-E9B671EE2729}
inline constexpr IID kIidServiceLoader = {0xE0393303, 0x90D4, 0x4A97, {0xAB, 0x71, 0xE9, 0xB6, 0x71, 0xEE, 0x27, 0x29}};
// {0818A8EF-9BA9-40D8-A6F9-E22833CC771E}
inline constexpr IID kIidService = {0x0818A8EF, 0x9BA9, 0x40D8, {0xA6, 0xF9, 0xE2, 0x28, 0x33, 0xCC, 0x77, 0x1E}};
// {FC5D23E8-A88B-41A5-8DE0-2D2F73C5A630}
inline constexpr IID kIidServiceSan = {0xFC5D23E8, 0xA88B, 0x41A5, {0x8D, 0xE0, 0x2D, 0x2F, 0x73, 0xC5, 0xA6, 0x30}};
// {10C5E575-7984-4E81-A56B-431F5F92AE42}
inline constexpr IID kIidProvider = {0x10C5E575, 0x7984, 0x4E81, {0xA5, 0x6B, 0x43, 0x1F, 0x5F, 0x92, 0xAE, 0x42}};
// {9AA58360-CE33-4F92-B658-ED24B14425B8}
inline constexpr IID kIidSwProvider = {0x9AA58360, 0xCE33, 0x4F92, {0xB6, 0x58, 0xED, 0x24, 0xB1, 0x44, 0x25, 0xB8}};
// {3B69D7F5-9D94-4648-91CA-79939BA263BF}
inline constexpr IID kIidPack = {0x3B69D7F5, 0x9D94, 0x4648, {0x91, 0xCA, 0x79, 0x93, 0x9B, 0xA2, 0x63, 0xBF}};
// {07E5C822-F00C-47A1-8FCE-B244DA56FD06}
inline constexpr IID kIidDisk = {0x07E5C822, 0xF00C, 0x47A1, {0x8F, 0xCE, 0xB2, 0x44, 0xDA, 0x56, 0xFD, 0x06}};
// {90681B1D-6A7F-48E8-9061-31B7AA125322}
inline constexpr IID kIidDiskOnline = {0x90681B1D, 0x6A7F, 0x48E8, {0x90, 0x61, 0x31, 0xB7, 0xAA, 0x12, 0x53, 0x22}};
// {88306BB2-E71F-478C-86A2-79DA200A0F11}
inline constexpr IID kIidVolume = {0x88306BB2, 0xE71F, 0x478C, {0x86, 0xA2, 0x79, 0xDA, 0x20, 0x0A, 0x0F, 0x11}};
// {EE2D5DED-6236-4169-931D-B9778CE03DC6}
inline constexpr IID kIidVolumeMF = {0xEE2D5DED, 0x6236, 0x4169, {0x93, 0x1D, 0xB9, 0x77, 0x8C, 0xE0, 0x3D, 0xC6}};
// {118610B7-8D94-4030-B5B8-500889788E4E}
inline constexpr IID kIidEnumObject = {0x118610B7, 0x8D94, 0x4030, {0xB5, 0xB8, 0x50, 0x08, 0x89, 0x78, 0x8E, 0x4E}};
// {D5D23B6D-5A55-4492-9889-397A3C2D2DBC}
inline constexpr IID kIidAsync = {0xD5D23B6D, 0x5A55, 0x4492, {0x98, 0x89, 0x39, 0x7A, 0x3C, 0x2D, 0x2D, 0xBC}};

// Answers of the service the library acts on.
inline constexpr HRESULT kServerStarting = static_cast<HRESULT>(0x80080005);   // CO_E_SERVER_EXEC_FAILURE
inline constexpr HRESULT kDiskAlreadyOffline = static_cast<HRESULT>(0x8004244B);

struct IVdsService;
struct IVdsPack;
struct IVdsProvider;

struct IEnumVdsObject : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Next(ULONG count, IUnknown** objects, ULONG* fetched) = 0;
    virtual HRESULT STDMETHODCALLTYPE Skip(ULONG count) = 0;
    virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
    virtual HRESULT STDMETHODCALLTYPE Clone(IEnumVdsObject** copy) = 0;
};

struct IVdsAsync : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Cancel() = 0;
    virtual HRESULT STDMETHODCALLTYPE Wait(HRESULT* result, VDS_ASYNC_OUTPUT* output) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryStatus(HRESULT* result, ULONG* percentCompleted) = 0;
};

struct IVdsServiceLoader : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE LoadService(LPWSTR machineName, IVdsService** service) = 0;
};

struct IVdsService : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE IsServiceReady() = 0;
    virtual HRESULT STDMETHODCALLTYPE WaitForServiceReady() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProperties(VDS_SERVICE_PROP* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryProviders(DWORD masks, IEnumVdsObject** providers) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryMaskedDisks(IEnumVdsObject** disks) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryUnallocatedDisks(IEnumVdsObject** disks) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetObject(VDS_OBJECT_ID id, VDS_OBJECT_TYPE type, IUnknown** object) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryDriveLetters(WCHAR first, DWORD count, void* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryFileSystemTypes(void** properties, LONG* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE Reenumerate() = 0;
    virtual HRESULT STDMETHODCALLTYPE Refresh() = 0;
    virtual HRESULT STDMETHODCALLTYPE CleanupObsoleteMountPoints() = 0;
    virtual HRESULT STDMETHODCALLTYPE Advise(IUnknown* sink, DWORD* cookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE Unadvise(DWORD cookie) = 0;
    virtual HRESULT STDMETHODCALLTYPE Reboot() = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFlags(ULONG flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearFlags(ULONG flags) = 0;
};

struct IVdsServiceSAN : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetSANPolicy(VDS_SAN_POLICY* policy) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetSANPolicy(VDS_SAN_POLICY policy) = 0;
};

struct IVdsProvider : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetProperties(VDS_PROVIDER_PROP* properties) = 0;
};

struct IVdsSwProvider : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE QueryPacks(IEnumVdsObject** packs) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreatePack(IVdsPack** pack) = 0;
};

struct IVdsPack : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetProperties(VDS_PACK_PROP* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetProvider(IVdsProvider** provider) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryVolumes(IEnumVdsObject** volumes) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryDisks(IEnumVdsObject** disks) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateVolume(VDS_VOLUME_TYPE type, void* disks, LONG count, ULONG stripeSize,
                                                   IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddDisk(VDS_OBJECT_ID disk, VDS_PARTITION_STYLE style, BOOL hotSpare) = 0;
    virtual HRESULT STDMETHODCALLTYPE MigrateDisks(VDS_OBJECT_ID* disks, LONG count, VDS_OBJECT_ID targetPack,
                                                   BOOL force, BOOL queryOnly, HRESULT* results,
                                                   BOOL* rebootNeeded) = 0;
    virtual HRESULT STDMETHODCALLTYPE ReplaceDisk(VDS_OBJECT_ID oldDisk, VDS_OBJECT_ID newDisk, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE RemoveMissingDisk(VDS_OBJECT_ID disk) = 0;
    virtual HRESULT STDMETHODCALLTYPE Recover(IVdsAsync** async) = 0;
};

struct IVdsDisk : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetProperties(VDS_DISK_PROP* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPack(IVdsPack** pack) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetIdentificationData(void* lunInfo) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryExtents(VDS_DISK_EXTENT** extents, LONG* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE ConvertStyle(VDS_PARTITION_STYLE style) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFlags(ULONG flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearFlags(ULONG flags) = 0;
};

struct IVdsDiskOnline : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE Online() = 0;
    virtual HRESULT STDMETHODCALLTYPE Offline() = 0;
};

struct IVdsVolume : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetProperties(VDS_VOLUME_PROP* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetPack(IVdsPack** pack) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryPlexes(IEnumVdsObject** plexes) = 0;
    virtual HRESULT STDMETHODCALLTYPE Extend(void* disks, LONG count, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE Shrink(ULONGLONG bytes, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddPlex(VDS_OBJECT_ID volume, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE BreakPlex(VDS_OBJECT_ID plex, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE RemovePlex(VDS_OBJECT_ID plex, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE Delete(BOOL force) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFlags(ULONG flags, BOOL revertOnClose) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearFlags(ULONG flags) = 0;
};

struct IVdsVolumeMF : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetFileSystemProperties(void* properties) = 0;
    virtual HRESULT STDMETHODCALLTYPE Format(int type, LPWSTR label, DWORD unitSize, BOOL force, BOOL quick,
                                             BOOL compress, IVdsAsync** async) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddAccessPath(LPWSTR path) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryAccessPaths(LPWSTR** paths, LONG* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryReparsePoints(void** points, LONG* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE DeleteAccessPath(LPWSTR path, BOOL force) = 0;
    virtual HRESULT STDMETHODCALLTYPE Mount() = 0;
    virtual HRESULT STDMETHODCALLTYPE Dismount(BOOL force, BOOL permanent) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFileSystemFlags(ULONG flags) = 0;
    virtual HRESULT STDMETHODCALLTYPE ClearFileSystemFlags(ULONG flags) = 0;
};

// The identifier of each interface, for QueryInterface through QueryAs.
template <class I> inline constexpr const IID* kIidOf = nullptr;
template <> inline constexpr const IID* kIidOf<IEnumVdsObject> = &kIidEnumObject;
template <> inline constexpr const IID* kIidOf<IVdsServiceLoader> = &kIidServiceLoader;
template <> inline constexpr const IID* kIidOf<IVdsService> = &kIidService;
template <> inline constexpr const IID* kIidOf<IVdsServiceSAN> = &kIidServiceSan;
template <> inline constexpr const IID* kIidOf<IVdsProvider> = &kIidProvider;
template <> inline constexpr const IID* kIidOf<IVdsSwProvider> = &kIidSwProvider;
template <> inline constexpr const IID* kIidOf<IVdsPack> = &kIidPack;
template <> inline constexpr const IID* kIidOf<IVdsDisk> = &kIidDisk;
template <> inline constexpr const IID* kIidOf<IVdsDiskOnline> = &kIidDiskOnline;
template <> inline constexpr const IID* kIidOf<IVdsVolume> = &kIidVolume;
template <> inline constexpr const IID* kIidOf<IVdsVolumeMF> = &kIidVolumeMF;
template <> inline constexpr const IID* kIidOf<IVdsAsync> = &kIidAsync;

}  // namespace kx::vds
