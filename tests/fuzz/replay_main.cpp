// Replays fuzz inputs without libFuzzer: every regular file of the directories (or files)
// named on the command line goes once through LLVMFuzzerTestOneInput, in name order, so a
// crasher found once stays a failing test until it is fixed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = boost::filesystem;

int main(int argc, char** argv)
{
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_regular_file(argv[i])) {
            inputs.push_back(argv[i]);
        } else if (fs::is_directory(argv[i])) {
            // Dot files keep otherwise empty directories in version control.
            for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
                if (fs::is_regular_file(entry.status()) && entry.path().filename().string().front() != '.')
                    inputs.push_back(entry.path());
        } else {
            std::fprintf(stderr, "%s: no such corpus: %s\n", argv[0], argv[i]);
            return 2;
        }
    }
    std::sort(inputs.begin(), inputs.end());
    // A replay of nothing would pass for any build: a wrong path must fail loudly.
    if (inputs.empty()) {
        std::fprintf(stderr, "%s: no inputs to replay\n", argv[0]);
        return 2;
    }
    for (const fs::path& input : inputs) {
        std::string bytes;
        boost::system::error_code error;
        bytes.resize(fs::file_size(input, error));
        std::FILE* file = std::fopen(input.c_str(), "rb");
        if (error || !file || std::fread(&bytes[0], 1, bytes.size(), file) != bytes.size()) {
            std::fprintf(stderr, "%s: cannot read %s\n", argv[0], input.c_str());
            return 2;
        }
        std::fclose(file);
        // Named before running, so the log says which input brought a crash.
        std::fprintf(stderr, "replay %s (%zu bytes)\n", input.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%s: replayed %zu inputs\n", argv[0], inputs.size());
    return 0;
}
