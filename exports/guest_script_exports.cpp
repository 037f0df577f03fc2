// Exported fix-ups: startup scripts.
#include "KestrixHA/guest_script.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/startup_script.h"

using kx::exports::Inner;
namespace g = kx::guestfix;

KXHA_API DWORD Ivm_InjectStartupScriptToHive(const std::wstring& systemDir, const std::wstring& scriptName,
                                             const std::wstring& parameters, RegistryHiveLoader* software) {
    return g::Ivm_InjectStartupScriptToHive(systemDir, scriptName, parameters, Inner(software));
}

KXHA_API DWORD InjectScript(const std::wstring& systemDir, const std::wstring& scriptFile,
                            const std::wstring& parameters) {
    return g::InjectScript(systemDir, scriptFile, parameters);
}
