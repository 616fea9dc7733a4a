// Replays fuzz inputs without libFuzzer: every regular file of the directories (or files)
// named on the command line goes once through LLVMFuzzerTestOneInput, in name order, so a
// crasher found once stays a failing test until it is fixed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = boost::filesystem;

int fail(const char* program, const char* what, const char* name)
{
    std::fprintf(stderr, "%s: %s%s\n", program, what, name);
    return 2;
}

int main(int argc, char** argv)
{
    std::vector<fs::path> inputs;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_regular_file(argv[i]))
            inputs.push_back(argv[i]);
        else if (!fs::is_directory(argv[i]))
            return fail(argv[0], "no such corpus: ", argv[i]);
        else  // dot files keep otherwise empty directories in version control
            for (const fs::directory_entry& entry : fs::directory_iterator(argv[i]))
                if (fs::is_regular_file(entry) && entry.path().filename().c_str()[0] != '.')
                    inputs.push_back(entry.path());
    }
    std::sort(inputs.begin(), inputs.end());
    // A replay of nothing would pass for any build: a wrong path must fail loudly.
    if (inputs.empty())
        return fail(argv[0], "no inputs to replay", "");
    for (const fs::path& input : inputs) {
        std::ifstream file(input.string(), std::ios::binary);
        std::ostringstream read;
        read << file.rdbuf();
        if (!file.good())
            return fail(argv[0], "cannot read ", input.c_str());
        const std::string bytes = read.str();
        // Named before running, so the log says which input brought a crash.
        std::fprintf(stderr, "replay %s (%zu bytes)\n", input.c_str(), bytes.size());
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%s: replayed %zu inputs\n", argv[0], inputs.size());
    return 0;
}
