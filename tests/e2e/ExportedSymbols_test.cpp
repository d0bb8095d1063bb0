// Other programs reach the security service through the dynamic symbol table of
// libvardotools.so: each function under its plain (unmangled) name, defined there.
#include <dlfcn.h>
#include <gtest/gtest.h>

TEST(ExportedSymbols, ServiceFunctionsHavePlainNames)
{
    void* const library = dlopen(VARDO_TOOLS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const char* name : {"AllocBase64CipherMemory", "FreeBase64CipherMemory", "ResetFreeBase64CipherMemory",
                             "EncodeWithBase64", "DecodeWithBase64", "PaskMemEncryptBase64", "PaskMemDecryptBase64",
                             "SeInitialize", "SeFinalize", "SeCheckAndUpdateMk", "SeGetCipherDataLen",
                             "SeUpdateRootKey"}) {
        Dl_info where{};
        ASSERT_NE(dladdr(dlsym(library, name), &where), 0) << name << " is not exported";
        EXPECT_STREQ(where.dli_fname, VARDO_TOOLS_LIBRARY) << name << " is defined outside the library";
        EXPECT_STREQ(where.dli_sname, name);
    }
    dlclose(library);
}
