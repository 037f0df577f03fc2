// A script that runs once at an offline guest's next start, before logon,
// as the machine, through the guest's local machine startup-script policy
// (it needs no helper service in the guest and keeps the guest's own
// startup scripts).
//
// Files below the guest's Windows folder `systemDir`:
//   System32\GroupPolicy\Machine\Scripts\Startup\<script> and the wrapper
//     kxonce-<script stem>.cmd, which writes kxonce-<stem>.done beside
//     itself before it calls the script (a .ps1 through PowerShell) and ends
//     at once when that marker is there: the script runs once.
//   System32\GroupPolicy\Machine\Scripts\scripts.ini, UTF-16 with byte-order
//     mark: [Startup] NCmdLine=<wrapper>, NParameters=<parameters>, N the
//     next index after the guest's own scripts.
//   System32\GroupPolicy\gpt.ini: [General] Version's machine part (low 16
//     bits) one up, and the scripts extension pair
//     [{42B5FAAE-6536-11D2-AE5A-0000F87571E3}{40B6664F-4972-11D1-A7CA-0000F87571E3}]
//     in gPCMachineExtensionNames (other extensions kept, groups sorted).
// Software hive: below Microsoft\Windows\CurrentVersion\Group Policy, in
//   Scripts\Startup and State\Machine\Scripts\Startup, the local policy's
//   key N (GPO-ID "LocalGPO"; made as the next index with SOM-ID "Local",
//   FileSysPath "<guest SystemRoot>\System32\GroupPolicy\Machine",
//   DisplayName/GPOName "Local Group Policy", PSScriptOrder 1 when the guest
//   has none) and its next script key M: Script=<wrapper>,
//   Parameters=<parameters>, ExecTime (REG_QWORD 0), and in the first tree
//   IsPowershell 0.
// Injecting the same script again keeps its index, replaces its parameters
// and removes its marker, so it runs once more; nothing is added.
// On any failure every file, key and ini is as it was before the call.
// Log: "begin <name>, dir=<systemDir>, script=<script>" ... "finish <name>,
// ret=<code>", and a line naming the entry written or the step that failed.
#pragma once

#include <string>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// Registers `scriptName`, a file the caller already put in
// <systemDir>\System32\GroupPolicy\Machine\Scripts\Startup, as above.
// `software`: a hive from GetSoftwareHiveKeyEx (stays loaded), or null.
// 87: empty name or one with a path; 2: the script is not in that folder;
// the hive load's code (1009: not a hive); else the failing write's code.
KXHA_API DWORD Ivm_InjectStartupScriptToHive(const std::wstring& systemDir, const std::wstring& scriptName,
                                             const std::wstring& parameters, RegistryHiveLoader* software);

// Copies the host file `scriptFile` into that folder (creating the policy
// folders) and registers it. 2 when the file is missing; on failure the copy
// and the folders made are removed again.
KXHA_API DWORD InjectScript(const std::wstring& systemDir, const std::wstring& scriptFile,
                            const std::wstring& parameters);
