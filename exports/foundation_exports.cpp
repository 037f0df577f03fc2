// Exported folder helpers.
#include "KestrixHA/foundation.h"
#include "common/call_frame.h"
#include "common/folder_ops.h"

KXHA_API DWORD DestroyDirectory(const wchar_t* folder) {
    return kx::RunExport(L"DestroyDirectory", [&] { return kx::DestroyDirectoryImpl(folder); });
}

KXHA_API DWORD GetFileListByPattern(const wchar_t* pattern, std::vector<std::wstring>& files) {
    return kx::RunExport(L"GetFileListByPattern", [&] { return kx::GetFileListByPatternImpl(pattern, files); });
}

KXHA_API DWORD KxGetDebugLogFile(wchar_t* buffer, DWORD* chars) {
    return kx::RunExport(L"KxGetDebugLogFile", [&]() -> DWORD {
        if (!buffer || !chars) return ERROR_INVALID_PARAMETER;
        const std::wstring file = kx::log::CurrentFile();
        if (*chars <= file.size()) {
            *chars = static_cast<DWORD>(file.size() + 1);
            return ERROR_INSUFFICIENT_BUFFER;
        }
        file.copy(buffer, file.size());
        buffer[file.size()] = 0;
        *chars = static_cast<DWORD>(file.size() + 1);
        return 0;
    });
}
