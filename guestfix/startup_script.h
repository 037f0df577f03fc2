// A script that runs once at an offline guest's next start, before anyone
// logs on, as the machine (LocalSystem).
//
// The script goes in through the guest's own local machine startup-script
// policy, not through a run-once list of the helper service: the policy is
// part of every Windows since 2000, runs before the logon screen whether or
// not the helper service was injected or starts at all, and a guest that
// already runs startup scripts of its own keeps them. What the policy keeps:
//   <Windows>\System32\GroupPolicy\Machine\Scripts\Startup\<files>
//   <Windows>\System32\GroupPolicy\Machine\Scripts\scripts.ini
//       [Startup] NCmdLine / NParameters, UTF-16 LE with byte-order mark
//   <Windows>\System32\GroupPolicy\gpt.ini
//       [General] Version (machine part in the low 16 bits) and
//       gPCMachineExtensionNames, which must name the scripts extension
//   software hive ...\Group Policy\Scripts\Startup\N\M and
//                 ...\Group Policy\State\Machine\Scripts\Startup\N\M
// The ini files are what the policy engine reads when it sees the version
// change; the keys are what the script runner reads, so a start that does
// not re-read the policy still runs the script. Both get the new script as
// the next index after the guest's own; nothing of theirs changes.
//
// Run once: the entry names a wrapper "kxonce-<script>.cmd" written beside
// the script. The wrapper leaves "kxonce-<script>.done" beside itself and
// then calls the script (a .ps1 through PowerShell); on every later start
// it finds the marker and ends at once. The marker is written first, so a
// script that restarts the guest is not run again.
#pragma once

#include <windows.h>

#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// The client-side extension that runs scripts and its editor's extension.
inline constexpr const wchar_t* kScriptsExtension = L"{42B5FAAE-6536-11D2-AE5A-0000F87571E3}";
inline constexpr const wchar_t* kScriptsEditor = L"{40B6664F-4972-11D1-A7CA-0000F87571E3}";

// "<Windows>\System32\GroupPolicy\Machine\Scripts\Startup".
std::wstring StartupScriptFolder(const std::wstring& systemDir);
// The wrapper's file name for a script's file name.
std::wstring OnceWrapperName(const std::wstring& scriptName);

// A gPCMachineExtensionNames value ("[{ext}{tool}...][...]") with the
// scripts extension and its editor in it, groups sorted by their first
// GUID as the policy editor keeps them; everything else as it was.
std::wstring WithScriptsExtension(const std::wstring& names);

// Registers `scriptName`, a file already in StartupScriptFolder, as the
// guest's next machine startup script (see above): writes the wrapper, the
// two key trees in `software` (null: loaded and unloaded here), scripts.ini
// and gpt.ini. A script already registered through its wrapper keeps its
// index: its parameters are replaced and its marker removed, so it runs
// once more. Returns 87 for an empty or path-like name, 2 when the script is
// not in the folder, the load's code, or the first failing write's; on any
// failure the keys, ini files and wrapper are as they were before.
[[nodiscard]] DWORD Ivm_InjectStartupScriptToHive(const std::wstring& systemDir, const std::wstring& scriptName,
                                                  const std::wstring& parameters, HiveLoader* software);

// Copies `scriptFile` into StartupScriptFolder (creating the folders) and
// registers it as above. 2 for a missing script; on failure the copy and
// the folders created here are removed again (a file of the same name the
// guest had gets its bytes back).
[[nodiscard]] DWORD InjectScript(const std::wstring& systemDir, const std::wstring& scriptFile,
                                 const std::wstring& parameters);

}  // namespace kx::guestfix
