// Runs a fuzz target over files where no fuzzer is linked: each file of the folders (and each file) named on
// the command line whole, and cut at a few lengths, so that "the input ended here" is tried all along. A
// crash or a sanitizer's report ends the process and is the failure; the file is named on standard error
// before it runs when ESMC_REPLAY_VERBOSE is set. An empty corpus is a failure too: it would pass for ever.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::size_t files, runs;

bool read_file(const std::string& path, std::vector<std::uint8_t>* out) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return false;
    out->clear();
    std::uint8_t piece[4096];
    for (std::size_t n; (n = std::fread(piece, 1, sizeof piece, file)) > 0;)
        out->insert(out->end(), piece, piece + n);
    const bool good = !std::ferror(file);
    std::fclose(file);
    return good;
}

// A block of exactly this size, so that the address sanitizer sees a read of one octet too many.
void run(const std::vector<std::uint8_t>& input, std::size_t length) {
    const std::unique_ptr<std::uint8_t[]> exact(new std::uint8_t[length]);
    std::copy_n(input.begin(), length, exact.get());
    (void)LLVMFuzzerTestOneInput(exact.get(), length);  // 0 by convention
    ++runs;
}

bool replay_file(const std::string& path) {
    std::vector<std::uint8_t> input;
    if (!read_file(path, &input)) {
        std::fprintf(stderr, "FAULT can't read %s\n", path.c_str());
        return false;
    }
    if (std::getenv("ESMC_REPLAY_VERBOSE")) std::fprintf(stderr, "%s\n", path.c_str());
    const std::size_t n = input.size();
    std::vector<std::size_t> lengths = {
        n, n / 4, n / 2, n - n / 4, n - std::min<std::size_t>(n, 1), std::min<std::size_t>(n, 3)};
    std::sort(lengths.begin(), lengths.end());
    lengths.erase(std::unique(lengths.begin(), lengths.end()), lengths.end());
    for (const std::size_t length : lengths) run(input, length);
    ++files;
    return true;
}

bool replay(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        std::fprintf(stderr, "FAULT no such file or folder: %s\n", path.c_str());
        return false;
    }
    if (!S_ISDIR(status.st_mode)) return replay_file(path);
    DIR* folder = opendir(path.c_str());
    if (!folder) return false;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(folder))
        if (entry->d_name[0] != '.') names.emplace_back(path + "/" + entry->d_name);
    closedir(folder);
    std::sort(names.begin(), names.end());
    return std::all_of(names.begin(), names.end(), replay);
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (!replay(argv[i])) return 1;
    std::printf("%zu files, %zu runs\n", files, runs);
    if (files == 0) std::fprintf(stderr, "FAULT nothing to replay\n");
    return files ? 0 : 1;
}
