// Exported folder helpers and the debug log's whereabouts.
#include "KestrixHA/foundation.h"
#include "log/call_frame.h"
#include "platform/folder_ops.h"

KXHA_API DWORD DestroyDirectory(const wchar_t* folder) { return kx::DestroyDirectory(folder); }

KXHA_API DWORD GetFileListByPattern(const wchar_t* pattern, std::vector<std::wstring>& files) {
    return kx::GetFileListByPattern(pattern, files);
}

KXHA_API DWORD KxGetDebugLogFile(wchar_t* buffer, DWORD* chars) {
    return kx::RunExport<kx::kKxGetDebugLogFile>([&](auto& frame) -> DWORD {
        if (!buffer || !chars) return frame.InvalidParameter();
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
