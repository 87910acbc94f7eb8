// Runs a fuzz target over files where no fuzzer is linked: each file of the folders (and each file) named on
// the command line whole, and cut at a few lengths, so that "the input ended here" is tried all along. A
// crash or a sanitizer's report ends the process and is the failure; the file is named on standard error
// before it runs when ESMC_REPLAY_VERBOSE is set. An empty corpus is a failure too: it would pass for ever.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

std::size_t files, runs;

bool replay(const fs::path& path) {
    if (fs::is_directory(path)) {
        const std::set<fs::path> entries(fs::directory_iterator(path), {});
        return std::all_of(entries.begin(), entries.end(), replay);
    }
    std::ifstream file(path, std::ios::binary);
    const std::string input{std::istreambuf_iterator<char>(file), {}};
    if (!file) std::fprintf(stderr, "FAULT can't read %s\n", path.c_str());
    if (!file) return false;
    if (std::getenv("ESMC_REPLAY_VERBOSE")) std::fprintf(stderr, "%s\n", path.c_str());
    const std::size_t n = input.size();
    for (const std::size_t length :
         std::set{n, n / 4, n / 2, n - n / 4, n - (n > 0), std::min<std::size_t>(n, 3)}) {
        // A block of exactly this size, so that the address sanitizer sees a read of one octet too many.
        const std::vector<std::uint8_t> exact(input.begin(), input.begin() + static_cast<long>(length));
        (void)LLVMFuzzerTestOneInput(exact.data(), length);  // 0 by convention
        ++runs;
    }
    ++files;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (!replay(argv[i])) return 1;
    std::printf("%zu files, %zu runs\n", files, runs);
    if (files == 0) std::fprintf(stderr, "FAULT nothing to replay\n");
    return files ? 0 : 1;
}
