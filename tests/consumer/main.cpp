// Lists files through the installed DLL; exits 0 when something was found.
#include <KestrixHA.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    wchar_t pattern[MAX_PATH];
    MultiByteToWideChar(CP_UTF8, 0, argv[1], -1, pattern, MAX_PATH);
    std::vector<std::wstring> files;
    DWORD rc = GetFileListByPattern(pattern, files);
    std::printf("GetFileListByPattern rc=%lu files=%zu\n", rc, files.size());
    return rc == 0 && !files.empty() ? 0 : 1;
}
