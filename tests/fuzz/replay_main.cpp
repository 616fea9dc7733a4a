// Replays fuzz inputs without libFuzzer: every regular file of the directories named on the
// command line goes once through LLVMFuzzerTestOneInput, in name order, so a crasher found
// once stays a failing test until it is fixed. A missing directory ends the run with an error.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <vector>

#include <boost/filesystem.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = boost::filesystem;

int main(int argc, char** argv)
{
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i)  // dot files keep otherwise empty directories in version control
        for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
            if (fs::is_regular_file(entry) && entry.path().filename().c_str()[0] != '.')
                inputs.push_back(entry.path());
    std::sort(inputs.begin(), inputs.end());
    // A replay of nothing would pass for any build: a wrong path must fail loudly.
    if (inputs.empty()) {
        std::fprintf(stderr, "%s: no inputs to replay\n", argv[0]);
        return 2;
    }
    for (const fs::path& input : inputs) {
        std::ostringstream read;
        read << std::ifstream(input.string(), std::ios::binary).rdbuf();
        const std::string bytes = read.str();
        // Named before running, so the log says which input brought a crash.
        std::fprintf(stderr, "replay %s (%zu bytes)\n", input.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%s: replayed %zu inputs\n", argv[0], inputs.size());
    return 0;
}
