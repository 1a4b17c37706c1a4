#include "FileChecks.h"
#include "Records.h"
#include "RunFiles.h"
#include "ValueChecks.h"

#include "OrvDataSource/DatasetFactory.h"
#include "wavelet/WaveletPaths.h"

#include <gdal_priv.h>

#include <algorithm>
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

// A file the run writes, under the name the messages give it.
struct Written {
    std::string role;
    std::string* path;
};

// The files the user named that the run writes and may remove.
std::vector<Written> NamedWrites(Options& o)
{
    std::vector<Written> files;
    if (!o.output.empty())
        files.push_back({"OUTPUT", &o.output});
    if (WritesStatistics(o))
        files.push_back({"the statistics file", &o.stats});
    if (!o.request.quicklook.empty())
        files.push_back({"the quicklook", &o.request.quicklook});
    return files;
}

// Every wavelet run writes and removes OUTPUT-without-extension + "_temp.tif"; empty for other runs.
std::string WaveletTemporary(const Options& o)
{
    const bool wavelet = o.command == "dwt" || o.command == "dwt-inverse";
    return wavelet ? WaveletTempPath(QString::fromStdString(o.output)).toStdString() : std::string();
}

// What the run writes beyond the named files: the output driver's side files, the files that
// replacing an existing OUTPUT deletes with it, the quicklook's own side file, the wavelet temporary.
struct SideFile {
    std::string role, path;
    bool replaced; // part of the user's existing OUTPUT, replaced with it
};

std::vector<SideFile> SideFiles(const Options& o)
{
    std::vector<SideFile> files;
    if (!o.output.empty()) {
        for (const std::string& f : RasterSideFiles(o.output))
            files.push_back({"'" + f + "', part of the existing OUTPUT,", f, true});
        for (const std::string& f : DriverSideFiles(o.output, o.format, o.input, o.creationOptions))
            files.push_back({"the side file '" + f + "' of OUTPUT", f, false});
    }
    if (!o.request.quicklook.empty())
        files.push_back({"the quicklook's side file", o.request.quicklook + ".aux.xml", false});
    if (std::string temp = WaveletTemporary(o); !temp.empty())
        files.push_back({"the wavelet temporary", temp, false});
    // Each once: an existing OUTPUT's .aux.xml is also one its driver writes.
    std::vector<SideFile> unique;
    for (SideFile& f : files)
        if (std::none_of(unique.begin(), unique.end(), [&](const SideFile& u) { return SameFile(u.path, f.path); }))
            unique.push_back(std::move(f));
    return unique;
}

// A file the run reads, and how a message names it.
struct Read {
    std::string described, path;
};

std::vector<Read> Reads(const Options& o, const InputFacts& f)
{
    std::vector<Read> reads = {{"INPUT", o.input}};
    for (const std::string& file : f.files)
        reads.push_back({"'" + file + "', which INPUT reads", file});
    if (!o.stats.empty() && !WritesStatistics(o))
        reads.push_back({"the statistics file the run reads", o.stats});
    if (!o.coefficients.empty())
        reads.push_back({"the coefficient file", o.coefficients});
    return reads;
}

std::string CheckSameFiles(Options& o, const InputFacts& f)
{
    // The temporary is removed afterwards, so it must not be anything the user has.
    const std::string temp = WaveletTemporary(o);
    std::error_code ec;
    if (!temp.empty() && (SameFile(o.input, temp) || fs::exists(fs::symlink_status(temp, ec))))
        return "'" + temp + "' exists and the wavelet run would overwrite and remove it; "
               "move it or choose another OUTPUT";
    std::vector<std::pair<std::string, std::string>> writes;
    for (const Written& w : NamedWrites(o))
        writes.emplace_back(w.role, *w.path);
    const size_t named = writes.size();
    for (const SideFile& s : SideFiles(o))
        writes.emplace_back(s.role, s.path);
    // Every file INPUT is made of (VRT sources, side files) is the user's too.
    for (const auto& [role, path] : writes)
        for (const Read& r : Reads(o, f))
            if (SameFile(r.path, path))
                return role + " is the same file as " + r.described + "; refusing to overwrite it";
    // Two things written under one name: the later one would end the earlier.
    for (size_t i = 0; i < named; ++i)
        for (size_t j = i + 1; j < writes.size(); ++j)
            if (SameFile(writes[i].second, writes[j].second))
                return writes[i].first + " and " + writes[j].first + " are the same file";
    return {};
}

// A copy-only format (PNG, JPEG) that would convert the result to a type it holds loses the
// values themselves: refused, though GDAL only warns.
std::string CopiedTypeProblem(const std::string& format, const PlannedOutput& plan)
{
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.c_str());
    if (!driver || plan.bands < 1 || driver->GetMetadataItem(GDAL_DCAP_CREATE))
        return {};
    const char* types = driver->GetMetadataItem(GDAL_DMD_CREATIONDATATYPES);
    const std::string type = PixelTypeName(plan.type).toStdString();
    std::string listed = " ";
    listed.append(types ? types : "").append(" ");
    if (!types || listed.find(std::string(" ").append(type).append(" ")) != std::string::npos)
        return {};
    return "option -of: " + format + " cannot hold the " + type + " values this command writes (it holds " + types +
           "); choose a format such as GTiff";
}

} // namespace

// The format must hold what the command writes, or the run is refused before anything is touched.
std::string FormatProblem(Options& o, int inputBands)
{
    const QString format = QString::fromStdString(o.format);
    const PlannedOutput plan = PlanOutput(o, inputBands);
    // No bands asked about: what is wrong with the format itself.
    QString problem = DatasetFactory::Instance()->OutputFormatProblem(format, 0, plan.type, nullptr);
    if (!problem.isEmpty())
        return "option -of: " + problem.toStdString();
    if (std::string copied = CopiedTypeProblem(o.format, plan); !copied.empty())
        return copied;
    QString warning;
    problem = DatasetFactory::Instance()->OutputFormatProblem(format, plan.bands, plan.type, &warning);
    if (!warning.isEmpty())
        o.request.warning = "Warning: " + warning.toStdString();
    if (problem.isEmpty())
        return {};
    return "option -of: " + o.format + " cannot hold " + std::to_string(plan.bands) + " band(s) of " +
           PixelTypeName(plan.type).toStdString() + ": " + problem.toStdString();
}

namespace {

std::string CheckOutputs(Options& o)
{
    for (const Written& w : NamedWrites(o)) {
        if (std::string problem = CheckWrittenPath(w.role, *w.path); !problem.empty())
            return problem;
        if (std::string problem = WritableProblem(w.role, *w.path); !problem.empty())
            return problem;
        if (w.role != "the quicklook")
            o.request.outputs.push_back(*w.path);
    }
    return {};
}

// Everything of the user's the run may touch, for the host to keep until the run ends.
void NoteGuardedFiles(Options& o)
{
    for (const Written& w : NamedWrites(o))
        o.request.guarded.push_back({*w.path, false, true});
    for (const SideFile& s : SideFiles(o))
        o.request.guarded.push_back({s.path, false, s.replaced});
    // A failed MNF inverse removes the statistics file it read; it is the user's input.
    if (!o.stats.empty() && !WritesStatistics(o))
        o.request.guarded.push_back({o.stats, true, false});
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
    for (const auto& [role, path] : {std::pair<const char*, std::string*>{"INPUT", &o.input}, {"OUTPUT", &o.output},
                                     {"the statistics file", &o.stats}, {"the quicklook", &o.request.quicklook}})
        if (std::string problem = EncodingProblem(role, *path); !problem.empty())
            return problem;
    const InputFacts input = LookAtInput(o.input);
    o.inputBands = input.bands;
    o.request.inputBands = input.bands;
    // GDAL opens more than files: /vsizip/..., subdataset names.
    if (!input.opened && !fs::exists(o.input, ec))
        return "INPUT '" + o.input + "' does not exist";
    if (!input.complexProblem.empty())
        return input.complexProblem;
    if (std::string problem = CheckOutputs(o); !problem.empty())
        return problem;
    if (std::string problem = CheckSameFiles(o, input); !problem.empty())
        return problem;
    for (int b : o.command == "fft" ? o.bands : std::vector<int>())
        if (input.opened && b > input.bands)
            return "option -b: INPUT has only " + std::to_string(input.bands) + " bands, not " + std::to_string(b);
    if (std::string problem = FormatProblem(o, input.bands); !problem.empty())
        return problem;
    if (std::string problem = o.command == "fft" ? SpectrumProblem(o.input, o.bands) : ""; !problem.empty())
        return problem;
    NoteGuardedFiles(o);
    return {};
}
