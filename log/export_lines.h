// What every exported function writes about itself: its start line, its end
// line and its line for rejected arguments, with their levels. One row per
// export; the call frame (log/call_frame.h) writes them. Exports that call
// one another (a listing per destination, a delete per session) go through
// the same rows, so a nested call logs as it does when called from outside.
//
// Formats: a start format takes the export's name first when it has one
// conversion more than the arguments its callers pass; a Result end format
// takes the name and the result code; a Values end format takes the name
// and whatever the body passes to ExportFrame::End.
#pragma once

#include <windows.h>

#include "common/result_codes.h"

namespace kx {

enum class EndKind {
    Result,  // the frame writes `end` with the result (after the name, when it has a place for it) on every path
    Values,  // the body writes `end` with its own values; other paths get the plain end line
    Plain,   // the frame writes `end`, a line without conversions, on every path
    None,    // no end line (the export reports in its own lines)
};

struct ExportLines {
    const wchar_t* name;
    int startLevel;
    const wchar_t* start;  // null: no start line
    int endLevel;
    const wchar_t* end;
    EndKind endKind;
    const wchar_t* invalid = L"%s() failed due to invalid parameter";
    DWORD invalidCode = ERROR_INVALID_PARAMETER;
    DWORD exceptionCode = 0;  // 0: out of memory gives ERROR_OUTOFMEMORY, anything else kFailNoCode
};

inline constexpr const wchar_t* kFinished = L"%s() finished, rc = [%d]";

// ---- foundation -------------------------------------------------------------
inline constexpr ExportLines kDestroyDirectory{L"DestroyDirectory", 1, L"%s() starts (%s)", 1, kFinished,
                                               EndKind::Result};
inline constexpr ExportLines kGetFileListByPattern{
    L"GetFileListByPattern", 1, L"%s(%s) starts...", 1, L"%s() finished, total file count = [%d] rc = [%d]",
    EndKind::Values, L"%s() failed due to incorrect pattern [%s]"};
inline constexpr ExportLines kKxGetDebugLogFile{L"KxGetDebugLogFile", 4, nullptr, 4, nullptr, EndKind::None};

// ---- session bitmaps ----------------------------------------------------------
inline constexpr ExportLines kReadDiskBitmap{L"ReadDiskBitmap", 4, nullptr, 4, nullptr, EndKind::None, nullptr,
                                             kE_INVALIDARG};
inline constexpr ExportLines kCreateBitmap4ZekFile{L"CreateBitmap4ZekFile", 1, L"%s(%s, %s, %s) starts", 1,
                                                   L"%s() finished, ret = [%d]", EndKind::Result,
                                                   L"%s() failed due to invalid parameters"};
inline constexpr ExportLines kCreateBitmap4SessionEx{L"CreateBitmap4SessionEx", 1, L"%s(%s, %s, %s, %d) starts", 1,
                                                     kFinished, EndKind::Result};
inline constexpr ExportLines kCreateBitmap4Session{L"CreateBitmap4Session", 4, nullptr, 4, nullptr, EndKind::None};
inline constexpr ExportLines kCreateBitmap4BackupDest{L"CreateBitmap4BackupDest", 4, nullptr, 4, nullptr,
                                                      EndKind::None};
inline constexpr ExportLines kCreateBitmap4BackupDestEx{L"CreateBitmap4BackupDestEx", 1, L"%s(%s) starts...", 1,
                                                        kFinished, EndKind::Result};
inline constexpr ExportLines kCreateSessionBitmapEx{L"CreateSessionBitmapEx", 4, L"%s(%s) starts", 1,
                                                    L"%s() finished, rc = %d", EndKind::Result,
                                                    L"%s() finished, rc = [ERROR_INVALID_PARAMETER]"};
inline constexpr ExportLines kCreateSessionBitmap{L"CreateSessionBitmap", 4, nullptr, 4, nullptr, EndKind::None};
inline constexpr ExportLines kMarkLastConvertedSession{L"MarkLastConvertedSession", 1, L"%s(%s, %s) starts...", 1,
                                                       nullptr, EndKind::None};
inline constexpr ExportLines kGetBackupDestList{L"GetBackupDestList", 1, L"%s(%s) starts...", 1,
                                                L"%s() finished, list size = [%d]", EndKind::Values};
inline constexpr ExportLines kGetBitmapList4BackupDest{L"GetBitmapList4BackupDest", 1, L"%s(%s) starts...", 1,
                                                       L"%s() finished, rc = [%d], count = [%d]", EndKind::Values};
inline constexpr ExportLines kGetSessionBitmapList{L"GetSessionBitmapList", 1, L"%s(%s) starts...", 1,
                                                   L"%s() finished, rc = [%d], total bitmap count = [%d]",
                                                   EndKind::Values};
inline constexpr ExportLines kGetBitmapDiskList{L"GetBitmapDiskList", 1, L"%s(%s, %s) starts...", 1, kFinished,
                                                EndKind::Result};
inline constexpr ExportLines kCheckSessionBitmap{
    L"CheckSessionBitmap", 1, L"%s(%s, %s, ...) starts", 1,
    L"%s() finished, ifSession = [%d] ifBitmap = [%d], ifMatch = [%d]", EndKind::Values};
inline constexpr ExportLines kDeleteBitmap4BackupDest{L"DeleteBitmap4BackupDest", 1, L"%s(%s, %s) starts...", 1,
                                                      kFinished, EndKind::Result};
inline constexpr ExportLines kDeleteSessionBitmap{L"DeleteSessionBitmap", 1, L"%s(%s, %s) starts...", 1, kFinished,
                                                  EndKind::Result};
inline constexpr ExportLines kDetectAndRemoveObsolteBitmap{L"DetectAndRemoveObsolteBitmap", 1, L"%s(%s) starts...",
                                                           1, kFinished, EndKind::Result};
inline constexpr ExportLines kGetBitmapReader_IncsFromFull{L"GetBitmapReader_IncsFromFull", 4, nullptr, 4, nullptr,
                                                           EndKind::None, nullptr, kE_INVALIDARG};

// ---- session coordination --------------------------------------------------------
inline constexpr ExportLines kHA_LockZekSessions{L"HA_LockZekSessions", 2,
                                                 L"%s::begin, root = %s, being = %d, end = %d, ph = 0x%p", 2,
                                                 L"%s::end, rc = %d", EndKind::Result, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kHA_UnlockZekSessions{L"HA_UnlockZekSessions", 2, L"HA_UnlockZekSess, hLock = 0x%p", 2,
                                                   nullptr, EndKind::None};
inline constexpr ExportLines kHA_UnlockCTF2{L"HA_UnlockCTF2", 2, L"%s, hLock = 0x%p", 2, nullptr, EndKind::None,
                                            nullptr, kE_INVALIDARG};
inline constexpr ExportLines kCheckIfIsFullZekBeforeMerged{L"CheckIfIsFullZekBeforeMerged", 4, nullptr, 4, nullptr,
                                                           EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kMVCM_GetMergeSessions{L"MVCM_GetMergeSessions", 4, nullptr, 4, nullptr, EndKind::None,
                                                    nullptr, kE_INVALIDARG, kE_FAIL};
inline constexpr ExportLines kReadVCMConfigure{L"ReadVCMConfigure", 4, nullptr, 4, nullptr, EndKind::None, nullptr,
                                               kE_INVALIDARG};
inline constexpr ExportLines kWriteVCMConfigure{L"WriteVCMConfigure", 4, nullptr, 4, nullptr, EndKind::None, nullptr,
                                                kE_INVALIDARG};
inline constexpr ExportLines kMVCM_GetSessionRWFolder{L"MVCM_GetSessionRWFolder", 4, nullptr, 4, nullptr,
                                                      EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kMVCM_OpenIntactSessionListHandle{L"MVCM_OpenIntactSessionListHandle", 4, nullptr, 4,
                                                               nullptr, EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kMVCM_QueryIntactSessionList{L"MVCM_QueryIntactSessionList", 4, nullptr, 4, nullptr,
                                                          EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kMVCM_CloseIntactSessionListHandle{L"MVCM_CloseIntactSessionListHandle", 4, nullptr, 4,
                                                                nullptr, EndKind::None};

// ---- guest hives ---------------------------------------------------------------
inline constexpr ExportLines kGetSystemHiveKeyEx{L"GetSystemHiveKeyEx", 2,
                                                 L"Begin to get system hive from directory %s.", 2,
                                                 L"Finish getting system hive", EndKind::Plain};
inline constexpr ExportLines kGetSoftwareHiveKeyEx{L"GetSoftwareHiveKeyEx", 2,
                                                   L"Begin to get software hive from directory %s.", 2,
                                                   L"Finish getting software hive", EndKind::Plain};

// ---- guest platform services and system switches -----------------------------
inline constexpr ExportLines kRVCM_EnableVirtualPlatformServices{
    L"RVCM_EnableVirtualPlatformServices", 2, L"begin disable service status", 2,
    L"end disable service status, ret=%u", EndKind::Result};
inline constexpr ExportLines kRVCM_EnableVirtualPlatformServicesEx{
    L"RVCM_EnableVirtualPlatformServicesEx", 2, L"Begin enable virtual platform services.", 2,
    L"Finish enabling virtual platform services.", EndKind::Plain};
inline constexpr ExportLines kDisableZekAgentService{L"DisableZekAgentService", 2,
                                                     L"Begin to disable Zek Agent service", 2,
                                                     L"End disabling Zek Agent service, ret = %u. ", EndKind::Result};
inline constexpr ExportLines kDisableZekAgentServiceEx{L"DisableZekAgentServiceEx", 2,
                                                       L"Begin to disable Zek agent service.", 2,
                                                       L"Finish disabling Zek agent service.", EndKind::Plain};
inline constexpr ExportLines kSetZekServiceStart{L"SetZekServiceStart", 4,
                                                 L"begin _SetZekServiceStart, strSystemDir=%s, zekServ=%s", 4,
                                                 nullptr, EndKind::None};
inline constexpr ExportLines kChangeProductionHostName{
    L"ChangeProductionHostName", 4, L"begin--SystemUpdater::ChangeHostName,%s, %s", 4,
    L"end--SystemUpdater::ChangeHostName, return %u", EndKind::Result};
inline constexpr ExportLines kPrepareZekForFailover{
    L"PrepareZekForFailover", 4, L"begin _PrepareZekForFailover, strSystemDir=%s, vmType=%s", 4,
    L"end _PrepareZekForFailover, ret=%u", EndKind::Result};
inline constexpr ExportLines kDeleteDynamicDiskGroup{L"DeleteDynamicDiskGroup", 2,
                                                     L"begin DeleteDynamicDiskGroup, dir=%s", 2,
                                                     L"finish DeleteDynamicDiskGroup, ret=%u", EndKind::Result};
inline constexpr ExportLines kDeleteDynamicDiskGroupEx{L"DeleteDynamicDiskGroupEx", 2,
                                                       L"Begin to delete legacy dynamic disk group.", 2,
                                                       L"Finish deleting legacy dynamic disk group.", EndKind::Plain};
inline constexpr ExportLines kDisableShutDownEventTracker{
    L"DisableShutDownEventTracker", 2, L"begin DisableShutDownEventTracker, systeDir=%s", 2,
    L"finish DisableShutDownEventTracker, ret=%u", EndKind::Result};
inline constexpr ExportLines kDisableShutDownEventTrackerEx{
    L"DisableShutDownEventTrackerEx", 2, L"Begin to disable shut event tracker.", 2,
    L"Finish disabling shut event tracker.", EndKind::Plain};
inline constexpr ExportLines kEnableTerminalService{
    L"EnableTerminalService", 2, L"Begin to enable Terminal Service and firewall rules.", 2,
    L"Finish enabling Terminal Service and firewall rules.", EndKind::Plain};
inline constexpr ExportLines kDisableDynamicUpdate{L"DisableDynamicUpdate", 2, L"Begin to disable dynamic update.", 2,
                                                   L"Finish disabling dynamic update.", EndKind::Plain};

// ---- guest boot configuration -----------------------------------------------------
// GetWin2003BootDevice writes its own end line (it carries the device too).
inline constexpr ExportLines kInjectBCDFile{L"InjectBCDFile", 2, L"begin InjectBCDFile, dir=%s", 2,
                                            L"finish InjectBCDFile, ret=%u", EndKind::Result};
inline constexpr ExportLines kEnableVMBootInSafeBoot{L"EnableVMBootInSafeBoot", 2,
                                                     L"Begin to update the bcd to safemode start.", 2, nullptr,
                                                     EndKind::None};
inline constexpr ExportLines kGetWin2003BootDevice{L"GetWin2003BootDevice", 2, L"Begin to get System boot Device.", 2,
                                                   nullptr, EndKind::None};
inline constexpr ExportLines kResetPRTag{L"ResetPRTag", 2, L"Begin to reset PR tag.", 2, L"Finish resetting PR tag.",
                                         EndKind::Plain};

// ---- guest boot drivers --------------------------------------------------------
inline constexpr ExportLines kInjectIDEDriver{L"InjectIDEDriver", 2, L"begin Inject IDE/SCSI Driver, dir=%s", 2,
                                              L"finish Inject IDE/SCSI Driver, ret=%u", EndKind::Result};
inline constexpr ExportLines kInjectIDEDriverEx{L"InjectIDEDriverEx", 2, L"Begin to inject IDE driver.", 2,
                                                L"Finish injecting IDE driver.", EndKind::Plain};
inline constexpr ExportLines kInjectSCSIDriver{L"InjectSCSIDriver", 2, nullptr, 2, nullptr, EndKind::None};
inline constexpr ExportLines kInjectDriverForEC2Ex{L"InjectDriverForEC2Ex", 2, L"Begin driver injection for EC2.", 2,
                                                   L"Finish driver injection for EC2.", EndKind::Plain};

// ---- guest CD-ROM drive letter ------------------------------------------------------
inline constexpr ExportLines kAdjustVirtualCDDriveLetter_HyperV{
    L"AdjustVirtualCDDriveLetter_HyperV", 2, L"begin AdjustVirtualCDDriveLetter_HyperV, dir=%s, letter=%c", 2,
    L"finish AdjustVirtualCDDriveLetter_HyperV, ret=%u", EndKind::Result};
// ---- helper service ------------------------------------------------------------
inline constexpr ExportLines kRVCM_InjectServiceToHive{L"RVCM_InjectServiceToHive", 2,
                                                       L"begin RVCM_InjectServiceToHive, service=%s", 2,
                                                       L"finish RVCM_InjectServiceToHive, ret=%u", EndKind::Result};
inline constexpr ExportLines kIvm_InjectHelperServiceToHive{
    L"Ivm_InjectHelperServiceToHive", 2, L"begin Ivm_InjectHelperServiceToHive, dir=%s", 2,
    L"finish Ivm_InjectHelperServiceToHive, ret=%u", EndKind::Result};
inline constexpr ExportLines kIvm_InjectHelperServiceToHiveEx{
    L"Ivm_InjectHelperServiceToHiveEx", 2, L"Begin to inject helper service.", 2,
    L"Finish injecting helper service.", EndKind::Plain};
inline constexpr ExportLines kIvm_InjectHelperServiceToHiveForVsb{
    L"Ivm_InjectHelperServiceToHiveForVsb", 2, L"Begin to inject helper service for standby.", 2,
    L"Finish injecting helper service for standby, ret=%u", EndKind::Result};
// ---- guest startup scripts --------------------------------------------------------
inline constexpr ExportLines kIvm_InjectStartupScriptToHive{
    L"Ivm_InjectStartupScriptToHive", 2, L"begin Ivm_InjectStartupScriptToHive, dir=%s, script=%s", 2,
    L"finish Ivm_InjectStartupScriptToHive, ret=%u", EndKind::Result};
inline constexpr ExportLines kInjectScript{L"InjectScript", 2, L"begin InjectScript, dir=%s, script=%s", 2,
                                           L"finish InjectScript, ret=%u", EndKind::Result};

// ---- Hyper-V snapshots: disk chain, mark files, recovery information, deletion ----
// The recovery-information exports and the copy size write their own end
// lines (they carry the path or the size beside the result).
inline constexpr ExportLines kGetDirOfMarkFile_HyperV{
    L"GetDirOfMarkFile_HyperV", 2, L"GetDirOfMarkFile_HyperV begin, input_root = %s, markfile = %s", 2,
    L"GetDirOfMarkFile_HyperV end, rc = %d", EndKind::Result, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kGetDirOfMarkFileByVm_HyperV{
    L"GetDirOfMarkFileByVm_HyperV", 2, L"GetDirOfMarkFileVm_HyperV begin, vm = %s, markfile = %s", 2,
    L"GetDirOfMarkFileVm_HyperV end, rc = %d", EndKind::Result, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kGetOffcopySize_HyperV{L"GetOffcopySize_HyperV", 2,
                                                    L"GetOffcopySize_HyperV begin, input root = %s", 2, nullptr,
                                                    EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kGetDrInfoLocalCopyPathForSnapNow_HyperV{
    L"GetDrInfoLocalCopyPathForSnapNow_HyperV", 2, L"GetAdrLocalCopyPath_HyperV begin, vmname = %s, vmguid = %s", 2,
    nullptr, EndKind::None, nullptr, kE_INVALIDARG};
inline constexpr ExportLines kGetAdrInfoCLocalCopyPathForSnapNow_HyperV{
    L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV", 2,
    L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV begin, vmname = %s, vmguid = %s", 2, nullptr, EndKind::None, nullptr,
    kE_INVALIDARG};
inline constexpr ExportLines kGetIVMAdrConfigLocalCopyPathForSnapNow_HyperV{
    L"GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV", 2,
    L"GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV begin, vmname = %s, vmguid = %s", 2, nullptr, EndKind::None,
    nullptr, kE_INVALIDARG};
inline constexpr ExportLines kBeginDeleteSnapshot_HyperV{L"BeginDeleteSnapshot_HyperV", 2,
                                                         L"%s(%s, %s) starts...", 2, kFinished, EndKind::Result,
                                                         L"%s() failed due to invalid parameter", kE_INVALIDARG};
inline constexpr ExportLines kEndDeleteSnapshot_HyperV{L"EndDeleteSnapshot_HyperV", 2, L"%s(0x%p, %d) starts...", 2,
                                                       L"%s() finished, removed = [%d], pending = [%d], rc = [%d]",
                                                       EndKind::Values, L"%s() failed due to invalid parameter",
                                                       kE_INVALIDARG};
inline constexpr ExportLines kCleanUselessVirtualDisk{L"CleanUselessVirtualDisk", 2, L"%s(%s, %s) starts...", 2,
                                                      L"%s() finished, removed = [%d], kept = [%d], rc = [%d]",
                                                      EndKind::Values, L"%s() failed due to invalid parameter",
                                                      kE_INVALIDARG};

// The pending-delete record on its own (read, add, replay), for the tool.
inline constexpr ExportLines kKxReadPendingDelRecord{L"KxReadPendingDelRecord", 2, L"%s(%s, %s) starts...", 2,
                                                     kFinished, EndKind::Result};
inline constexpr ExportLines kKxAddPendingDelRecord{L"KxAddPendingDelRecord", 2, L"%s(%s, %s) starts...", 2,
                                                    kFinished, EndKind::Result};
inline constexpr ExportLines kKxReplayPendingDelRecord{L"KxReplayPendingDelRecord", 2, L"%s(%s, %s) starts...", 2,
                                                       L"%s() finished, removed = [%d], pending = [%d], rc = [%d]",
                                                       EndKind::Values};
// ---- host network adapters and host facts --------------------------------------
// Begin and finish lines at level 2, failures at level 0. Argument refusals of
// the setters write only the finish line with the code. The readers write
// their own finish lines (they report values, not the result).
inline constexpr ExportLines kGetHostAdapterList{L"GetHostAdapterList", 2, L"begin GetHostAdapterList", 2, nullptr, EndKind::None};
inline constexpr ExportLines kEnableHostDHCP{L"EnableHostDHCP", 2, L"begin EnableHostDHCP, adapter=%s", 2,
                                             L"fiish EnableHostDHCP, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kEnableHostStatic{L"EnableHostStatic", 2, L"begin EnableHostStatic, adapter=%s", 2,
                                               L"finish EnableHostStatic, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kEnableHostDNS{L"EnableHostDNS", 2, L"begin EnableHostDNS, adapter=%s", 2,
                                            L"finish EnableHostDNS, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostDNSDomain{L"SetHostDNSDomain", 2, L"begin SetHostDNSDomain, adapter=%s, dns=%s", 2,
                                               L"finish SetHostDNSDomain, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostDNSServerSearchOrder{
    L"SetHostDNSServerSearchOrder", 2, L"begin SetHostDNSServerSearchOrder, adapter=%s", 2,
    L"finish SetHostDNSServerSearchOrder, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostDNSSuffixSearchOrder{
    L"SetHostDNSSuffixSearchOrder", 2, L"begin SetHostDNSSuffixSearchOrder, adapter=%s", 2,
    L"finish SetHostDNSSuffixSearchOrder, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostDynamicDNSRegistration{
    L"SetHostDynamicDNSRegistration", 2, L"begin SetHostDynamicDNSRegistration, adapter=%s, full=%d, domain=%d", 2,
    L"finish SetHostDynamicDNSRegistration, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostGateways{L"SetHostGateways", 2, L"begin SetHostGateways, adapter=%s", 2,
                                              L"finish SetHostGateways, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kSetHostWINSServer{L"SetHostWINSServer", 2,
                                                L"begin SetHostWINSServer, adapter=%s, wins=%s, wins2=%s", 2,
                                                L"finish SetHostWINSServer, ret=%u", EndKind::Result, nullptr};
inline constexpr ExportLines kGetHostIsDHCPEnabed{L"GetHostIsDHCPEnabed", 2, L"GetHostIsDHCP begin", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetHostIPSetting{L"GetHostIPSetting", 2, L"GetHostIP begin", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetHostGatewaySetting{L"GetHostGatewaySetting", 2, L"GetHostGateway begin", 2, nullptr, EndKind::None};
// The DNS reader's begin line is the DHCP reader's.
inline constexpr ExportLines kGetHostDNSServerSetting{L"GetHostDNSServerSetting", 2, L"GetHostIsDHCPEnabed begin", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetHostMac{L"GetHostMac", 2, L"begin GetHostMac, deviceId=%s", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetIpAddressFromDns{L"GetIpAddressFromDns", 2, L"begin GetIpAddressFromDns, name=%s", 2,
                                                  L"finish GetIpAddressFromDns, ret=%u", EndKind::Result,
                                                  L"%s: Input DNS name is null"};
inline constexpr ExportLines kGetHostProcessorCount{L"GetHostProcessorCount", 2, L"begin GetHostProcessorCount", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetHostPhysicalMemory{L"GetHostPhysicalMemory", 2, L"begin GetHostPhysicalMemory", 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetHostCPUArchitecture{L"GetHostCPUArchitecture", 2, L"begin GetHostCPUArchitecture",
                                                     2, L"finish GetHostCPUArchitecture, ret=%u", EndKind::Result};
inline constexpr ExportLines kIsHyperVRole{L"IsHyperVRole", 2, L"begin to call IsHyperVRole", 2, nullptr, EndKind::None};
inline constexpr ExportLines kHA_IsHostOSGreaterEqual{L"HA_IsHostOSGreaterEqual", 2, nullptr, 2, nullptr,
                                                      EndKind::None};
inline constexpr ExportLines kRebootSystem{L"RebootSystem", 2, L"begin RebootSystem, force=%d", 2, nullptr, EndKind::None};
// ---- disk geometry and boot sector repair ---------------------------------------
inline constexpr ExportLines kAdjustVirtualDiskVolumeCHS{L"AdjustVirtualDiskVolumeCHS", 1, L"%s(%s, %s, %I64u) starts", 1,
                                                         kFinished, EndKind::Result};

}  // namespace kx
// ---- ISO images ---------------------------------------------------------------------
namespace kx {
namespace iso_rows {
inline constexpr ExportLines kSetMediaType{L"FileSystemImage::SetMediaType", 1, L"%s(%d) starts", 1, kFinished,
                                           EndKind::Result};
inline constexpr ExportLines kSetVolumeName{L"FileSystemImage::SetVolumeName", 1, L"%s(%s) starts", 1, kFinished,
                                            EndKind::Result};
inline constexpr ExportLines kAddFile{L"FileSystemImage::AddFile", 1, L"%s(%s) starts", 1, kFinished,
                                      EndKind::Result};
inline constexpr ExportLines kAddFiles{L"FileSystemImage::AddFile", 1, L"%s(%d files) starts", 1, kFinished,
                                       EndKind::Result};
inline constexpr ExportLines kAddDirectory{L"FileSystemImage::AddDirectory", 1, L"%s(%s, %d) starts", 1, kFinished,
                                           EndKind::Result};
inline constexpr ExportLines kAddDirectories{L"FileSystemImage::AddDirectory", 1, L"%s(%d folders, %d) starts", 1,
                                             kFinished, EndKind::Result};
inline constexpr ExportLines kCreateImage{L"FileSystemImage::CreateImage", 1, L"%s(%s) starts", 1, kFinished,
                                          EndKind::Result};
}  // namespace iso_rows
inline constexpr ExportLines kCreateIsoImage{L"CreateIsoImage", 1, L"%s(%s, %s, %s) starts", 1, kFinished,
                                             EndKind::Result};
// ---- boot volume repair of a Hyper-V VM ----------------------------------------
inline constexpr ExportLines kAdjustVolumeBootCode_HyperV{L"AdjustVolumeBootCode_HyperV", 2,
                                                          L"%s(%s, %s, 0x%08X) starts...", 2, kFinished,
                                                          EndKind::Result, L"%s() failed due to invalid parameter",
                                                          kE_INVALIDARG};

}  // namespace kx
// ---- shadow-copy snapshot manager ---------------------------------------------
namespace kx {
namespace vss_rows {
inline constexpr ExportLines kCreateMgr{L"MVCM_CreateVssMgr", 1, L"%s() starts", 1, kFinished, EndKind::Result,
                                        L"%s() failed due to invalid parameter", kE_POINTER, kE_OUTOFMEMORY};
inline constexpr const wchar_t* kHrFinished = L"%s() finished, hr = [0x%08X]";
inline constexpr ExportLines kCreateSet{L"IVssMgr::CreateSnapshotSet", 1, L"%s(%d volumes) starts", 1, kHrFinished,
                                        EndKind::Result, L"%s() failed due to invalid parameter", kE_INVALIDARG,
                                        kE_OUTOFMEMORY};
inline constexpr ExportLines kDeleteSet{L"IVssMgr::DeleteSnapshotSet", 1, L"%s() starts", 1, kHrFinished,
                                        EndKind::Result};
inline constexpr ExportLines kRelease{L"IVssMgr::Release", 1, L"%s(keep = %d) starts", 1, kFinished,
                                      EndKind::Result};
}  // namespace vss_rows
}  // namespace kx

// ---- VMware guest support --------------------------------------------------------
namespace kx {
inline constexpr ExportLines kGetVddkVersion{L"GetVddkVersion", 2, L"%s() starts", 2, kFinished, EndKind::Result};
inline constexpr ExportLines kGetGuestID{L"GetGuestID", 2, L"%s(%u.%u, build %u, %s, architecture %u) starts", 2,
                                         kFinished, EndKind::Result};
inline constexpr ExportLines kGetGuestIDEx{L"GetGuestIDEx", 2, L"%s(%s) starts", 2, kFinished, EndKind::Result};
inline constexpr ExportLines kgetDotNetVersion{L"getDotNetVersion", 2, L"%s(%s) starts", 2, kFinished,
                                               EndKind::Result};
inline constexpr ExportLines kCheckVMToolStatus{L"CheckVMToolStatus", 2, L"%s() starts", 2, kFinished,
                                                EndKind::Result};
inline constexpr ExportLines kInstallVMwareTools{L"InstallVMwareTools", 1, L"%s(%s) starts", 1, kFinished,
                                                 EndKind::Result};
inline constexpr ExportLines kInstallIntegrationService{L"InstallIntegrationService", 1, L"%s(%s) starts", 1,
                                                        kFinished, EndKind::Result};
}  // namespace kx
// ---- disks and volumes through the Virtual Disk Service -------------------------
namespace kx {
inline constexpr ExportLines kGetOnlineDisks{L"GetOnlineDisks", 2, nullptr, 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetOnlineVolumes{L"GetOnlineVolumes", 2, nullptr, 2, nullptr, EndKind::None};
inline constexpr ExportLines kGetOnlineDisksAndVolumes{L"GetOnlineDisksAndVolumes", 2,
                                                       L"begin GetOnlineDisksAndVolumes", 2,
                                                       L"finish GetOnlineDisksAndVolumes", EndKind::Plain};
inline constexpr ExportLines kCheckDiskSignatureConflict{L"CheckDiskSignatureConflict", 2, nullptr, 2, nullptr,
                                                         EndKind::None};
}  // namespace kx
// ---- raw disk checks ------------------------------------------------------------
namespace kx {
inline constexpr ExportLines kCheckIfExistDiskLargerThan2T{L"CheckIfExistDiskLargerThan2T", 2, L"begin %s", 2,
                                                           L"finish %s, rc = %d", EndKind::Result};
inline constexpr ExportLines kgetMaxDiskSize{L"getMaxDiskSize", 2, L"begin %s", 2, L"finish %s, rc = %d",
                                             EndKind::Result};
inline constexpr ExportLines kGetSystemDiskSignature{L"GetSystemDiskSignature", 2, L"begin %s", 2,
                                                     L"finish %s, rc = %d", EndKind::Result};
inline constexpr ExportLines kCheckFileCryptCmprsAttr{L"CheckFileCryptCmprsAttr", 2, L"begin %s, file = %s", 2,
                                                      L"finish %s, rc = %d", EndKind::Result,
                                                      L"%s() failed due to invalid parameter", kE_INVALIDARG};
inline constexpr ExportLines kCheckIfFileOnCmprsVol{L"CheckIfFileOnCmprsVol", 2, L"begin %s, file = %s", 2,
                                                    L"finish %s, rc = %d", EndKind::Result,
                                                    L"%s() failed due to invalid parameter", kE_INVALIDARG};
inline constexpr ExportLines kGetDiskPathforCloudDisk{L"GetDiskPathforCloudDisk", 2, L"begin %s, size = %lld", 2,
                                                      L"finish %s, rc = %d", EndKind::Result};
}  // namespace kx
// ---- iSCSI ----------------------------------------------------------------------------
namespace kx {
inline constexpr ExportLines kGetIqnNumber{L"GetIqnNumber", 1, L"%s() starts", 1, kFinished, EndKind::Result};
inline constexpr ExportLines kDiscoverTarget{L"DiscoverTarget", 1, L"%s(%s) starts", 1, kFinished, EndKind::Result};
inline constexpr ExportLines kAttachIscsiTarget{L"AttachIscsiTarget", 1, L"%s(%s, %s) starts", 1, kFinished,
                                                EndKind::Result};
inline constexpr ExportLines kLogoutIscsiSession{L"LogoutIscsiSession", 1, L"%s(%s) starts", 1, kFinished,
                                                 EndKind::Result};
}  // namespace kx
