// libFuzzer target for the configuration reader (XML and binary property lists). Besides not
// crashing, a configuration that reads well must survive being written back and read again:
// the command line and the window rewrite the file after every run.

#include "engine/config/FVConfigurationFile.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace ferrovane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    FVConfigurationReadResult first = FVConfigurationFile::parse(bytes, "input");
    if (first.status != FVConfigurationReadStatus::Ok) return 0;

    static const std::string path = "/dev/shm/ferrovane-fuzz-" + std::to_string(getpid()) + ".conf";
    std::string error;
    if (!FVConfigurationFile::writeSettingsForSourceConfiguration(first.configuration.sources,
                                                                 *first.configuration.settings, path, &error))
        return 0;  // the writer refused: the old file stays, nothing is lost
    // Dates lose fractions and years past 2069 in the file format; what a run needs must not.
    FVConfigurationReadResult again = FVConfigurationFile::read(path);
    const FVConfiguration& a = first.configuration;
    const FVConfiguration& b = again.configuration;
    if (again.status != FVConfigurationReadStatus::Ok || a.sources.size() != b.sources.size() ||
        a.settings->size() != b.settings->size())
        std::abort();
    for (const auto& [key, value] : a.settings->entries())
        if (b.settings->integerValue(key) != value.integerValue()) std::abort();
    for (size_t i = 0; i < a.sources.size(); ++i)
        if (a.sources[i]->sourcePath() != b.sources[i]->sourcePath() || a.sources[i]->enabled() != b.sources[i]->enabled())
            std::abort();
    return 0;
}
