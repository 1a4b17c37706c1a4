// Without libFuzzer: every file of the folders (or the files) named on the command line goes once
// through the target, so CTest replays the committed corpus under whatever sanitizers the build has.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    namespace fs = std::filesystem;
    std::vector<fs::path> files; // absolute: a target may change the working folder
    for (int i = 1; i < argc; ++i)
        if (fs::is_directory(argv[i]))
            for (const auto& entry : fs::directory_iterator(argv[i]))
                files.push_back(fs::absolute(entry.path()));
        else
            files.push_back(fs::absolute(argv[i]));
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        if (!in.is_open()) {
            std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs replayed\n", files.size());
    return files.empty() ? 1 : 0;
}
