// Runs a fuzz target without the fuzzer, on every file of the directories (or
// the files) named on the command line, in name order: so the seed corpus and
// every kept crash input run in every build, with that build's sanitizer.

#include "FuzzSupport.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <unistd.h>

namespace
{

// How long one input may take before the run counts as hung.
constexpr unsigned int INPUT_TIME_LIMIT_S = 60;

void onAlarm(int)
{
    const char message[] = "regression runner: an input hung (the last one named above)\n";
    ::_exit(::write(STDERR_FILENO, message, sizeof(message) - 1) < 0 ? 2 : 1);
}

std::vector<std::filesystem::path> inputsOf(const std::filesystem::path& path)
{
    std::vector<std::filesystem::path> inputs;
    std::error_code error;
    if (std::filesystem::is_regular_file(path, error))
    {
        inputs.push_back(path);
    }
    for (const auto& entry : std::filesystem::directory_iterator(path, error))
    {
        if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
        {
            inputs.push_back(entry.path());
        }
    }
    if (error && inputs.empty())
    {
        std::cout << "skipped (not there): " << path.string() << std::endl;
    }
    std::sort(inputs.begin(), inputs.end());
    return inputs;
}

} // namespace

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    std::signal(SIGALRM, onAlarm);
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i)
    {
        for (const std::filesystem::path& input : inputsOf(argv[i]))
        {
            std::ifstream file(input, std::ios::binary);
            const Bytes bytes((std::istreambuf_iterator<char>(file)),
                              std::istreambuf_iterator<char>());
            std::cout << "input " << input.string() << " (" << bytes.size() << " bytes)"
                      << std::endl;
            // Never a null pointer, not even for an empty input, as the fuzzer.
            static const uint8 none = 0;
            ::alarm(INPUT_TIME_LIMIT_S);
            LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
            ::alarm(0);
            ++count;
        }
    }
    std::cout << count << " inputs passed" << std::endl;
    // A runner that found nothing to run has tested nothing.
    return count > 0 ? 0 : 1;
}
