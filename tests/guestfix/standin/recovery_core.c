/* A stand-in RecoveryCore.DLL for the boot configuration tests. Its
   DrUnCompressFile unpacks an archive of the tests' own making into the
   destination folder:
     "KXPK", then per entry: u32 name length in UTF-16 units, the name
     (UTF-16LE, "\" separates sub-folders, which are made), u32 data
     length, the data.
   0 on success; the system's code when the archive cannot be read or a file
   not written; ERROR_INVALID_DATA for a malformed archive. Built a second
   time without the export (KX_WITHOUT_UNPACKER). */
#include <windows.h>
#include <string.h>

#ifndef KX_WITHOUT_UNPACKER
static DWORD ReadAll(const wchar_t* path, BYTE** data, DWORD* size) {
    HANDLE f = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, NULL, OPEN_EXISTING, 0, NULL);
    DWORD got = 0, rc = 0;
    if (f == INVALID_HANDLE_VALUE) return GetLastError();
    *size = GetFileSize(f, NULL);
    *data = (BYTE*)HeapAlloc(GetProcessHeap(), 0, *size + 1);
    if (!*data) rc = ERROR_NOT_ENOUGH_MEMORY;
    else if (!ReadFile(f, *data, *size, &got, NULL) || got != *size) rc = ERROR_READ_FAULT;
    CloseHandle(f);
    return rc;
}

static DWORD Write(const wchar_t* folder, const wchar_t* name, DWORD nameLen, const BYTE* data, DWORD size) {
    wchar_t path[1024];
    size_t n = wcslen(folder), i;
    HANDLE f;
    DWORD written = 0, rc = 0;
    if (n + 1 + nameLen >= 1024) return ERROR_FILENAME_EXCED_RANGE;
    memcpy(path, folder, n * sizeof(wchar_t));
    path[n++] = L'\\';
    for (i = 0; i < nameLen; ++i) {
        path[n + i] = name[i];
        if (name[i] == L'\\') {
            path[n + i] = 0;
            CreateDirectoryW(path, NULL);
            path[n + i] = L'\\';
        }
    }
    path[n + nameLen] = 0;
    f = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    if (f == INVALID_HANDLE_VALUE) return GetLastError();
    if (!WriteFile(f, data, size, &written, NULL) || written != size) rc = ERROR_WRITE_FAULT;
    CloseHandle(f);
    return rc;
}

__declspec(dllexport) DWORD WINAPI DrUnCompressFile(const wchar_t* compressedFile, const wchar_t* destinationFolder) {
    BYTE* data = NULL;
    DWORD size = 0, at = 4, rc = ReadAll(compressedFile, &data, &size);
    if (rc == 0 && (size < 4 || memcmp(data, "KXPK", 4) != 0)) rc = ERROR_INVALID_DATA;
    while (rc == 0 && at < size) {
        DWORD nameLen, dataLen;
        wchar_t name[512];
        if (size - at < 4) { rc = ERROR_INVALID_DATA; break; }
        memcpy(&nameLen, data + at, 4);
        at += 4;
        if (nameLen == 0 || nameLen >= 512 || (size - at) / 2 < nameLen) { rc = ERROR_INVALID_DATA; break; }
        memcpy(name, data + at, nameLen * 2);
        at += nameLen * 2;
        if (size - at < 4) { rc = ERROR_INVALID_DATA; break; }
        memcpy(&dataLen, data + at, 4);
        at += 4;
        if (size - at < dataLen) { rc = ERROR_INVALID_DATA; break; }
        rc = Write(destinationFolder, name, nameLen, data + at, dataLen);
        at += dataLen;
    }
    if (data) HeapFree(GetProcessHeap(), 0, data);
    return rc;
}
#else
__declspec(dllexport) DWORD WINAPI DrCompressFile(const wchar_t* folder, const wchar_t* compressedFile) {
    (void)folder;
    (void)compressedFile;
    return ERROR_CALL_NOT_IMPLEMENTED;
}
#endif
