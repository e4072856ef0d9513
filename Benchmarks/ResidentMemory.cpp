#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "Benchmarks/SampleLibrary.hpp"

// ResidentMemory make COUNT: makes a library and prints its folder.
// ResidentMemory open FOLDER: opens it in a fresh process and prints, in bytes, what the process then holds more than
// before, and the size of the manifest.

namespace {

long residentBytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * ::sysconf(_SC_PAGESIZE);
}

}  // namespace

int main(int count, char** arguments) {
    using namespace quillmere;
    if (count != 3) return 2;
    const std::string what = arguments[1];
    if (what == "make") {
        std::printf("%s\n", benchmarks::makeLibrary(std::stoul(arguments[2])).c_str());
        return 0;
    }
    const std::filesystem::path folder = arguments[2];
    const long before = residentBytes();
    const auto store = benchmarks::openLibrary(folder);
    const long after = residentBytes();
    const auto manifest = std::filesystem::file_size(folder / "manifest.json");
    std::printf("%ld %ld %zu\n", after - before, static_cast<long>(manifest), store->count());
    return 0;
}
