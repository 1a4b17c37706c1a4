#include "FileChecks.h"
#include "Records.h"

#include "OrvDataSource/DatasetFactory.h"
#include "wavelet/WaveletPaths.h"

#include <filesystem>

namespace fs = std::filesystem;
using namespace OrvDataSource;

namespace {

// What the host sees when it opens INPUT the way the plug-in will.
struct InputFacts {
    bool opened = false;
    int bands = 0;
    std::vector<std::string> files; // every file GDAL reads for it
    std::string complexProblem;
};

InputFacts LookAtInput(const std::string& input)
{
    InputFacts f;
    auto ds = DatasetFactory::Instance()->OpenRasterDataset(QString::fromStdString(input), OM_Read);
    if (!ds)
        return f;
    f.opened = true;
    f.bands = ds->GetBandCount();
    for (const QString& file : ds->GetFileList())
        f.files.push_back(file.toStdString());
    for (int b = 0; b < f.bands && f.complexProblem.empty(); ++b) {
        const PixelDataType type = ds->GetRasterBand(b)->GetRasterDataType();
        if (IsComplexType(type))
            f.complexProblem = "INPUT band " + std::to_string(b + 1) + " is " + PixelTypeName(type).toStdString() +
                               ", a complex pixel type; the transforms read Byte, UInt16, Int16, UInt32, "
                               "Int32, Float32 and Float64 only";
    }
    return f;
}

// GDAL's virtual file systems are not folders on disk; GDAL itself judges them.
bool IsVirtualPath(const std::string& path) { return path.rfind("/vsi", 0) == 0; }

// A file the run writes and may remove: never a device, fifo, socket or folder, never through a
// link (the file written is the one removed), and in a folder that exists.
std::string CheckWrittenPath(const std::string& role, std::string& path)
{
    std::error_code ec;
    if (IsVirtualPath(path))
        return {};
    if (fs::is_symlink(path, ec)) {
        fs::path target = fs::absolute(path);
        for (int hops = 0; fs::is_symlink(target, ec); ++hops) {
            const fs::path next = fs::read_symlink(target, ec);
            if (ec || hops == 40)
                return role + " '" + path + "' is a link that cannot be followed";
            target = next.is_absolute() ? next : target.parent_path() / next;
        }
        path = fs::weakly_canonical(target, ec).string();
    }
    const fs::file_status st = fs::status(path, ec);
    if (fs::exists(st) && !fs::is_regular_file(st))
        return role + " '" + path + "' exists and is not a regular file; refusing to write over or remove it";
    const fs::path folder = fs::absolute(path).parent_path();
    if (!fs::is_directory(folder, ec))
        return "the folder '" + folder.string() + "' of " + role + " does not exist";
    return {};
}

// The files the run writes and may remove, under the names the messages give them.
std::vector<std::pair<std::string, std::string*>> WrittenFiles(Options& o)
{
    std::vector<std::pair<std::string, std::string*>> files;
    if (!o.output.empty())
        files.emplace_back("OUTPUT", &o.output);
    if (WritesStatistics(o))
        files.emplace_back("the statistics file", &o.stats);
    return files;
}

// Every wavelet run writes and removes OUTPUT-without-extension + "_temp.tif"; empty for other runs.
std::string WaveletTemporary(const Options& o)
{
    const bool wavelet = o.command == "dwt" || o.command == "dwt-inverse";
    return wavelet ? WaveletTempPath(QString::fromStdString(o.output)).toStdString() : std::string();
}

std::string CheckSameFiles(Options& o, const InputFacts& f)
{
    if (!o.output.empty() && SameFile(o.input, o.output))
        return "OUTPUT is the same file as INPUT; refusing to overwrite it";
    if (!o.stats.empty() && SameFile(o.input, o.stats))
        return "the statistics file is the same file as INPUT; refusing to overwrite it";
    if (!o.stats.empty() && !o.output.empty() && SameFile(o.output, o.stats))
        return "the statistics file and OUTPUT are the same file";
    // The temporary is removed afterwards, so it must not be anything the user has.
    std::string temp = WaveletTemporary(o);
    std::error_code ec;
    if (!temp.empty() && (SameFile(o.input, temp) || fs::exists(fs::symlink_status(temp, ec))))
        return "'" + temp + "' exists and the wavelet run would overwrite and remove it; "
               "move it or choose another OUTPUT";
    // Every file INPUT is made of (VRT sources, side files) is the user's too.
    auto written = WrittenFiles(o);
    written.emplace_back("the wavelet temporary", &temp);
    for (const std::string& file : f.files)
        for (const auto& [role, path] : written)
            if (!path->empty() && SameFile(file, *path))
                return role + " is the same file as '" + file + "', which INPUT reads; refusing to overwrite it";
    return {};
}

// The format must hold what the command writes, or the run is refused before anything is touched.
std::string CheckFormat(Options& o, const InputFacts& f)
{
    const QString format = QString::fromStdString(o.format);
    const PlannedOutput plan = PlanOutput(o, f.bands);
    // No bands asked about: what is wrong with the format itself.
    QString problem = DatasetFactory::Instance()->OutputFormatProblem(format, 0, plan.type, nullptr);
    if (!problem.isEmpty())
        return "option -of: " + problem.toStdString();
    QString warning;
    problem = DatasetFactory::Instance()->OutputFormatProblem(format, plan.bands, plan.type, &warning);
    if (!warning.isEmpty())
        o.request.warning = "Warning: " + warning.toStdString();
    if (problem.isEmpty())
        return {};
    return "option -of: " + o.format + " cannot hold " + std::to_string(plan.bands) + " band(s) of " +
           PixelTypeName(plan.type).toStdString() + ": " + problem.toStdString();
}

std::string CheckOutputs(Options& o)
{
    for (const auto& [role, path] : WrittenFiles(o)) {
        if (std::string problem = CheckWrittenPath(role, *path); !problem.empty())
            return problem;
        o.request.outputs.push_back(*path);
    }
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

std::string CheckFiles(Options& o)
{
    std::error_code ec;
    const InputFacts input = LookAtInput(o.input);
    o.inputBands = input.bands;
    // GDAL opens more than files: /vsizip/..., subdataset names.
    if (!input.opened && !fs::exists(o.input, ec))
        return "INPUT '" + o.input + "' does not exist";
    if (!input.complexProblem.empty())
        return input.complexProblem;
    if (std::string problem = CheckOutputs(o); !problem.empty())
        return problem;
    if (std::string problem = CheckSameFiles(o, input); !problem.empty())
        return problem;
    return CheckFormat(o, input);
}
