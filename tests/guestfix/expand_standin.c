/* A stand-in for the system's expand.exe in the driver tests. It takes
 * exactly the form
 *     expand.exe "<cabinet>" -F:<file> "<destination folder>"
 * and extracts the one named file with the system's cabinet API (FDI from
 * cabinet.dll). Paths travel through FDI as UTF-8 and are opened as wide
 * strings, so any Unicode path works.
 * Exit codes: 0 extracted; 1 wrong arguments; 2 not a cabinet, unreadable
 * or corrupt; 3 the file is not in the cabinet. A partial output file is
 * removed. */
#include <windows.h>
#include <fcntl.h>
#include <fdi.h>
#include <io.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static char g_want[MAX_PATH * 3];
static char g_dest[MAX_PATH * 3];
static wchar_t g_out[MAX_PATH * 2];
static int g_found;

static void Wide(const char* utf8, wchar_t* out, int cap) {
    if (!MultiByteToWideChar(CP_UTF8, 0, utf8, -1, out, cap)) out[0] = 0;
}

static void Utf8(const wchar_t* w, char* out, int cap) {
    if (!WideCharToMultiByte(CP_UTF8, 0, w, -1, out, cap, NULL, NULL)) out[0] = 0;
}

static FNALLOC(Alloc) { return malloc(cb); }
static FNFREE(Free) { free(pv); }
static FNOPEN(Open) {
    wchar_t w[MAX_PATH * 2];
    Wide(pszFile, w, MAX_PATH * 2);
    return _wopen(w, oflag | _O_BINARY, pmode);
}
static FNREAD(Read) { return (UINT)_read((int)hf, pv, cb); }
static FNWRITE(Write) { return (UINT)_write((int)hf, pv, cb); }
static FNCLOSE(Close) { return _close((int)hf); }
static FNSEEK(Seek) { return _lseek((int)hf, dist, seektype); }

static FNFDINOTIFY(Notify) {
    switch (fdint) {
    case fdintCOPY_FILE: {
        char path[MAX_PATH * 6];
        if (g_found || _stricmp(pfdin->psz1, g_want) != 0) return 0;
        snprintf(path, sizeof path, "%s\\%s", g_dest, pfdin->psz1);
        Wide(path, g_out, MAX_PATH * 2);
        g_found = 1;
        return Open(path, _O_CREAT | _O_TRUNC | _O_WRONLY, _S_IREAD | _S_IWRITE);
    }
    case fdintCLOSE_FILE_INFO:
        Close(pfdin->hf);
        return TRUE;
    default:
        return 0;
    }
}

int wmain(int argc, wchar_t** argv) {
    char cab[MAX_PATH * 3], dir[MAX_PATH * 3], *name;
    ERF erf;
    HFDI fdi;
    FDICABINETINFO info;
    INT_PTR hf;
    BOOL ok;
    if (argc != 4 || wcsncmp(argv[2], L"-F:", 3) != 0 || !argv[2][3] || wcspbrk(argv[2] + 3, L"\\/*?")) {
        fprintf(stderr, "usage: expand.exe \"<cabinet>\" -F:<file> \"<destination folder>\"\n");
        return 1;
    }
    Utf8(argv[1], cab, sizeof cab);
    Utf8(argv[2] + 3, g_want, sizeof g_want);
    Utf8(argv[3], g_dest, sizeof g_dest);
    strcpy(dir, cab);
    name = strrchr(dir, '\\');
    if (!name) return 1;
    name[1] = 0;
    fdi = FDICreate(Alloc, Free, Open, Read, Write, Close, Seek, cpuUNKNOWN, &erf);
    if (!fdi) return 2;
    hf = Open(cab, _O_RDONLY, 0);
    if (hf == -1) {
        FDIDestroy(fdi);
        return 2;
    }
    ok = FDIIsCabinet(fdi, hf, &info);
    Close(hf);
    if (ok) ok = FDICopy(fdi, strrchr(cab, '\\') + 1, dir, 0, Notify, NULL, NULL);
    FDIDestroy(fdi);
    if (!ok) {
        if (g_found) _wremove(g_out);
        fprintf(stderr, "expand: %s is not a cabinet or is damaged\n", cab);
        return 2;
    }
    if (!g_found) {
        fprintf(stderr, "expand: %s is not in %s\n", g_want, cab);
        return 3;
    }
    return 0;
}
