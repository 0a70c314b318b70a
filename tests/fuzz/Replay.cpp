// Runs one fuzzer once with each file of the given folders, so that the inputs that fuzzing found
// are tests with every compiler. One thread; there is no lock.

#include "Input.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

int main(int argc, char** argv) {
    std::set<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            files.insert(entry.path());
        }
    }
    for (const auto& file : files) {
        std::cout << file.string() << std::endl;
        const std::string content = contentOf(file);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()),
                               content.size());
    }
    return files.empty() ? 1 : 0;
}
