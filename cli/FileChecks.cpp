#include "FileChecks.h"

#include "OrvDataSource/DatasetFactory.h"
#include "wavelet/WaveletPaths.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool IsWavelet(const std::string& command) { return command == "dwt" || command == "dwt-inverse"; }

// Every wavelet run removes this name afterwards, so it must not be anything the user has.
std::string CheckWaveletTemporary(const Options& o)
{
    const std::string temp = WaveletTempPath(QString::fromStdString(o.output)).toStdString();
    std::error_code ec;
    if (SameFile(o.input, temp) || fs::exists(temp, ec))
        return "'" + temp + "' exists and the wavelet run would overwrite and remove it; "
               "move it or choose another OUTPUT";
    return {};
}

} // namespace

bool SameFile(const std::string& a, const std::string& b)
{
    std::error_code ec;
    if (fs::exists(a, ec) && fs::exists(b, ec))
        return fs::equivalent(a, b, ec);
    return fs::weakly_canonical(fs::absolute(a), ec) == fs::weakly_canonical(fs::absolute(b), ec);
}

std::string CheckFiles(const Options& o)
{
    std::error_code ec;
    if (!fs::exists(o.input, ec))
        return "INPUT '" + o.input + "' does not exist";
    if (!o.output.empty() && SameFile(o.input, o.output))
        return "OUTPUT is the same file as INPUT; refusing to overwrite it";
    if (!o.stats.empty() && SameFile(o.input, o.stats))
        return "the statistics file is the same file as INPUT; refusing to overwrite it";
    if (!o.stats.empty() && !o.output.empty() && SameFile(o.output, o.stats))
        return "the statistics file and OUTPUT are the same file";
    if (IsWavelet(o.command))
        if (std::string problem = CheckWaveletTemporary(o); !problem.empty())
            return problem;
    if (!OrvDataSource::DatasetFactory::Instance()->CanWriteRaster(QString::fromStdString(o.format)))
        return "option -of: '" + o.format + "' is not a raster format GDAL can write";
    return {};
}
