// The main of every test program: the product's registry is pointed at a
// test install folder (so the debug log lands there) with detail logging on.
#include <gtest/gtest.h>

#include "kx_test.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    kxtest::MakeDirs(L"C:\\KxTest\\install");
    const std::wstring path = L"C:\\KxTest\\install";
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kxtest::kInstallPathKey, L"Path", REG_SZ, path.c_str(),
                      static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    const DWORD detail = 4;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kxtest::kDebugKey, L"KestrixHA", REG_DWORD, &detail, sizeof detail);
    return RUN_ALL_TESTS();
}
