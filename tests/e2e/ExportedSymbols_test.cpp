// The security service is reached by other programs through the dynamic
// symbol table of libvardotools.so: each function must be there under its
// plain (unmangled) name, defined by the library itself.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

const char* const SERVICE_FUNCTIONS[] = {
    "AllocBase64CipherMemory", "FreeBase64CipherMemory", "ResetFreeBase64CipherMemory",
    "EncodeWithBase64",        "DecodeWithBase64",       "PaskMemEncryptBase64",
    "PaskMemDecryptBase64",    "SeInitialize",           "SeFinalize",
    "SeCheckAndUpdateMk",      "SeGetCipherDataLen",     "SeUpdateRootKey",
};

// Names of the global functions (type T) that `nm -D --defined-only` lists.
std::set<std::string> DefinedFunctions(const std::string& library)
{
    std::set<std::string> names;
    const std::string command = "nm -D --defined-only '" + library + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (pipe == nullptr) {
        return names;
    }
    char line[1024];
    while (std::fgets(line, sizeof(line), pipe.get()) != nullptr) {
        std::istringstream fields(line);
        std::string address, type, name;
        if (fields >> address >> type >> name && type == "T") {
            names.insert(name.substr(0, name.find('@')));
        }
    }
    return names;
}

TEST(ExportedSymbols, ServiceFunctionsHavePlainNames)
{
    const std::set<std::string> listed = DefinedFunctions(VARDO_TOOLS_LIBRARY);
    ASSERT_FALSE(listed.empty()) << "nm listed nothing for " << VARDO_TOOLS_LIBRARY;

    std::unique_ptr<void, int (*)(void*)> library(dlopen(VARDO_TOOLS_LIBRARY, RTLD_NOW | RTLD_LOCAL), dlclose);
    ASSERT_NE(library, nullptr) << dlerror();
    Dl_info self{};
    ASSERT_NE(dladdr(dlsym(library.get(), SERVICE_FUNCTIONS[0]), &self), 0);

    for (const char* name : SERVICE_FUNCTIONS) {
        SCOPED_TRACE(name);
        EXPECT_EQ(listed.count(name), 1U) << "not a defined function in the dynamic symbol table";
        void* address = dlsym(library.get(), name);
        ASSERT_NE(address, nullptr) << dlerror();
        Dl_info where{};
        ASSERT_NE(dladdr(address, &where), 0);
        EXPECT_STREQ(where.dli_fname, self.dli_fname) << "resolved outside libvardotools.so";
        EXPECT_EQ(where.dli_fbase, self.dli_fbase);
    }
    EXPECT_NE(std::string(self.dli_fname).find("libvardotools.so"), std::string::npos) << self.dli_fname;
}

}  // namespace
