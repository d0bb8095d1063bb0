// Runs a fuzz target once over each input file, and over the files of each
// input directory, for builds without libFuzzer: there the corpora are
// ordinary tests. Exit 0 when every input ran (a broken property aborts).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::string> inputs;
    for (int i = 1; i < argc; ++i) {
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
                inputs.push_back(entry.path());
            }
        } else {
            inputs.push_back(argv[i]);
        }
    }
    for (const std::string& input : inputs) {
        std::fprintf(stderr, "input %s\n", input.c_str());
        const std::string bytes = VardoFuzz::ReadFile(input);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::fprintf(stderr, "%zu inputs run\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
