// The fuzzer's bytes as a command line (words split at NUL) through the parser to the parameter
// record; the plug-in is never loaded. The scratch folder holds a raster and statistics files
// under the names the seeds use.
#include "CommandLine.h"
#include "FuzzSupport.h"
#include "pca/PCAStatFile.h"

#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

void MakeScene()
{
    using namespace tavfuzz;
    TinyRaster("in.tif", 6);
    CPCAStatFile pca(Q(Scratch().file("pca.sta")), 6);
    if (pca.CreateForWriting())
        pca.WriteAndClose();
    BytesAsFile("mnf.sta", reinterpret_cast<const uint8_t*>("\0\0\0\0"), 4);
    if (chdir(Scratch().path().c_str()) != 0)
        std::abort();
}

// Names that leave the scratch folder or reach past files (devices, GDAL's network and database
// connection strings) are not the parser's business and would make runs hang or differ.
bool StaysInScratch(const std::string& word)
{
    return word.empty() || (word[0] != '/' && word[0] != '~' && word.find("..") == std::string::npos &&
                            word.find(':') == std::string::npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool ready = (MakeScene(), true);
    (void)ready;
    std::vector<std::string> args(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0)
            args.emplace_back();
        else
            args.back() += static_cast<char>(data[i]);
    }
    for (const std::string& word : args)
        if (!StaysInScratch(word))
            return 0;
    const ParseResult result = ParseCommandLine(args);
    // Every outcome says something, and a run has its record.
    if ((result.kind != ParseResult::Run && result.text.empty()) ||
        (result.kind == ParseResult::Run && result.request.record.empty()))
        std::abort();
    return 0;
}
