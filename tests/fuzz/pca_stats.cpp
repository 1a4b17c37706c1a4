// The fuzzer's bytes as a PCA statistics file, rotated back over a tiny component raster. The run
// may fail, but only as Execute fails a rotation (no code, no text; the host words it): no crash, no
// read past an array, no exception out of Execute.
#include "AlgoHarness.h"
#include "FuzzSupport.h"
#include "frame/PCARecords.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace tavfuzz;
    // Six bands: files of 1 to 6 bands reach the pixel loop, larger counts the band check.
    static const std::string components = TinyRaster("components.tif", 6);
    stInversePCAInfo info;
    info.strInputFile = Q(components);
    info.strStatFile = Q(BytesAsFile("pca.sta", data, size));
    info.strOutputFile = Q(Scratch().file("pca_back.tif"));
    info.strFormat = "GTiff";
    info.nOutDataType = static_cast<int>(size % 7); // every output conversion sees hostile values too
    tavtest::AlgoHarness host;
    if (!host.Run(info) && (host.Code() != 0 || !host.Text().isEmpty()))
        std::abort(); // the engine spoke where codes and texts are Execute's
    return 0;
}
