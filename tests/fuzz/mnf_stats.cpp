// The fuzzer's bytes as an MNF statistics file, for inverse runs over tiny component rasters of 1 to
// 6 bands, so that a file of any of those counts reaches the pixel loop. The run may fail, but only
// with its message: no crash, no read past an array, no exception out of Execute.
#include "AlgoHarness.h"
#include "FuzzSupport.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace tavfuzz;
    static const std::vector<std::string> components = [] {
        std::vector<std::string> paths;
        for (int bands = 1; bands <= 6; ++bands)
            paths.push_back(TinyRaster("components" + std::to_string(bands) + ".tif", bands));
        return paths;
    }();
    const std::string stats = BytesAsFile("mnf.sta", data, size);
    for (const std::string& input : components) {
        tavtest::AlgoHarness host;
        stTransInfo info = tavtest::TransRecord(1, false, input, Scratch().file("mnf_back.tif"));
        info.strStatFile = Q(stats);
        if (!host.Run(info) && host.Text().isEmpty())
            std::abort(); // a failure the user cannot read
    }
    return 0;
}
