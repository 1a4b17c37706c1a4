#include "CommandLine.h"

#include "OrvDataSource/DatasetFactory.h"
#include "wavelet/WaveletPaths.h"

#include <gdal_priv.h>

#include <filesystem>
#include <map>
#include <set>

namespace fs = std::filesystem;

namespace {

struct CommandInfo {
    const char* summary;
    const char* usage;
    const char* details;
    std::set<std::string> options; // command-specific options
};

const std::map<std::string, CommandInfo>& Commands()
{
    static const std::map<std::string, CommandInfo> commands = {
        {"kt", {"Tasseled Cap components (Float32)", "kt [-sensor tm|mss|etm] INPUT OUTPUT",
                "  -sensor tm   Landsat TM digital numbers: bands 1-5 and 6 (band 7 for a 7-band scene),\n"
                "               3 components (Brightness, green, humidity); the default\n"
                "  -sensor mss  Landsat MSS: bands 1-4, 4 components\n"
                "  -sensor etm  Landsat ETM+ at-satellite reflectance: bands 1-6, 6 components\n"
                "  The output origin lies half a pixel in from the input's.\n",
                {"-sensor"}}},
        {"fft", {"centred Fourier spectrum, a real and an imaginary Float32 band per band",
                 "fft [-b N]... INPUT OUTPUT",
                 "  -b N   band to transform (1-based), repeatable; default every band in order\n"
                 "  The spectrum uses the positive exponent and is divided by width x height;\n"
                 "  the zero frequency sits at (floor(W/2), floor(H/2)).\n",
                 {"-b"}}},
        {"fft-inverse", {"image bands from spectrum band pairs", "fft-inverse [-ot TYPE] INPUT OUTPUT",
                         "  -ot TYPE   output pixel type, default Float32. Only Float32 yields the values\n"
                         "             themselves: the single-precision results are written under the\n"
                         "             declared type without conversion.\n"
                         "  Input bands 2i and 2i+1 are the real and imaginary parts of output band i; an odd\n"
                         "  last band is ignored. After fft, the result is the input point-reflected about (0,0).\n",
                         {"-ot"}}},
        {"dwt", {"one-level Daubechies wavelet quadrants (Float32)", "dwt INPUT OUTPUT",
                 "  Every band becomes LL (top left), horizontal detail (top right), vertical detail\n"
                 "  (bottom left) and diagonal detail (bottom right).\n",
                 {}}},
        {"dwt-inverse", {"image bands rebuilt from wavelet quadrants (Float32)", "dwt-inverse INPUT OUTPUT",
                         "  The input must be Float32 (a dwt result). A temporary OUTPUT-without-extension\n"
                         "  + \"_temp.tif\" raster is written beside the output and removed afterwards.\n",
                         {}}},
        {"mnf", {"minimum noise fraction components and their statistics file", "mnf -stats FILE INPUT OUTPUT",
                 "  -stats FILE   statistics file to write (required)\n", {"-stats"}}},
        {"mnf-inverse", {"image bands from minimum noise fraction components", "mnf-inverse -stats FILE INPUT OUTPUT",
                         "  -stats FILE   statistics file written by mnf (required)\n", {"-stats"}}},
        {"pca", {"principal components and their statistics file",
                 "pca -stats FILE [-ot TYPE] [-n N] [-corr] [-center] [-stats-only] INPUT [OUTPUT]",
                 "  -stats FILE   statistics file to write (required)\n"
                 "  -ot TYPE      output pixel type, default Float32\n"
                 "  -n N          use bands 1..N of the input and write N components; default all bands\n"
                 "  -corr         rotate by the correlation matrix instead of the covariance matrix\n"
                 "  -center       subtract each band's mean before projecting\n"
                 "  -stats-only   write the statistics file and print the eigenvalues; no OUTPUT\n",
                 {"-stats", "-ot", "-n", "-corr", "-center", "-stats-only"}}},
        {"pca-inverse", {"image bands rotated back from principal components",
                         "pca-inverse -stats FILE [-ot TYPE] INPUT OUTPUT",
                         "  -stats FILE   statistics file written by pca (required)\n"
                         "  -ot TYPE      output pixel type, default Float32\n",
                         {"-stats", "-ot"}}},
    };
    return commands;
}

const char* kCommonOptions =
    "Common options:\n"
    "  -of FORMAT      output format (GDAL driver short name), default GTiff\n"
    "  -q              no progress\n"
    "  --plugin PATH   plug-in module to load instead of the one installed with this program\n"
    "  -h, --help      this help\n";

std::string GeneralHelp()
{
    std::string s = "Usage: tavtransform COMMAND [options] INPUT OUTPUT\n\nCommands:\n";
    for (const auto& [name, info] : Commands()) {
        std::string pad(std::max<size_t>(1, 13 - name.size()), ' ');
        s += "  " + name + pad + info.summary + "\n";
    }
    s += "\n";
    s += kCommonOptions;
    s += "  --version       program version\n\n'tavtransform COMMAND --help' describes one command.\n";
    return s;
}

std::string CommandHelp(const std::string& name)
{
    const CommandInfo& info = Commands().at(name);
    return std::string("Usage: tavtransform ") + info.usage + "\n" + info.summary + "\n\n" + info.details + "\n" +
           kCommonOptions;
}

ParseResult Usage(const std::string& problem, const std::string& command = {})
{
    ParseResult r;
    r.kind = ParseResult::UsageError;
    r.text = problem;
    r.hint = command.empty() ? "Try 'tavtransform --help'." : "Try 'tavtransform " + command + " --help'.";
    return r;
}

bool SameFile(const std::string& a, const std::string& b)
{
    std::error_code ec;
    if (fs::exists(a, ec) && fs::exists(b, ec))
        return fs::equivalent(a, b, ec);
    return fs::weakly_canonical(fs::absolute(a), ec) == fs::weakly_canonical(fs::absolute(b), ec);
}

bool ParseInt(const std::string& text, int& value)
{
    try {
        size_t used = 0;
        value = std::stoi(text, &used);
        return used == text.size();
    } catch (...) {
        return false;
    }
}

int BandCount(const std::string& path)
{
    auto ds = OrvDataSource::DatasetFactory::Instance()->OpenRasterDataset(QString::fromStdString(path),
                                                                           OrvDataSource::OM_Read);
    return ds ? ds->GetBandCount() : 0;
}

QString Q(const std::string& s) { return QString::fromStdString(s); }

} // namespace

int PixelTypeIndex(const std::string& name)
{
    static const char* names[] = {"Byte", "UInt16", "Int16", "UInt32", "Int32", "Float32", "Float64"};
    for (int i = 0; i < 7; ++i)
        if (name == names[i])
            return i;
    return -1;
}

ParseResult ParseCommandLine(const std::vector<std::string>& args)
{
    if (args.empty())
        return Usage("no command given");
    const std::string& command = args[0];
    if (command == "-h" || command == "--help")
        return {ParseResult::Done, {}, GeneralHelp(), {}};
    if (command == "--version")
        return {ParseResult::Done, {}, std::string("tavtransform ") + TAV_VERSION + "\n", {}};
    const auto found = Commands().find(command);
    if (found == Commands().end())
        return Usage("unknown command '" + command + "'");
    const CommandInfo& info = found->second;

    Request req;
    req.command = command;
    std::string format = "GTiff", stats, sensor = "tm", outType = "Float32";
    std::vector<int> bands;
    int components = 0;
    bool corr = false, center = false;
    std::vector<std::string> positional;

    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= args.size())
                return false;
            out = args[++i];
            return true;
        };
        if (a == "-h" || a == "--help")
            return {ParseResult::Done, {}, CommandHelp(command), {}};
        if (a == "-q") { req.quiet = true; continue; }
        if (a == "-of" || a == "--plugin") {
            if (!value(a == "-of" ? format : req.pluginPath))
                return Usage("option " + a + " needs a value", command);
            continue;
        }
        if (a.size() > 1 && a[0] == '-' && !info.options.count(a))
            return Usage("option " + a + " is not an option of '" + command + "'", command);
        std::string v;
        if (a == "-sensor") {
            if (!value(sensor) || (sensor != "tm" && sensor != "mss" && sensor != "etm"))
                return Usage("option -sensor takes tm, mss or etm", command);
        } else if (a == "-b") {
            int b = 0;
            if (!value(v) || !ParseInt(v, b) || b < 1)
                return Usage("option -b takes a band number from 1 up", command);
            bands.push_back(b);
        } else if (a == "-ot") {
            if (!value(outType) || PixelTypeIndex(outType) < 0)
                return Usage("option -ot takes Byte, UInt16, Int16, UInt32, Int32, Float32 or Float64", command);
        } else if (a == "-stats") {
            if (!value(stats) || stats.empty())
                return Usage("option -stats needs a file name", command);
        } else if (a == "-n") {
            if (!value(v) || !ParseInt(v, components) || components < 1)
                return Usage("option -n takes a band count from 1 up", command);
        } else if (a == "-corr") {
            corr = true;
        } else if (a == "-center") {
            center = true;
        } else if (a == "-stats-only") {
            req.statsOnly = true;
        } else {
            positional.push_back(a);
        }
    }

    const size_t needed = req.statsOnly ? 1 : 2;
    if (positional.size() < needed)
        return Usage(needed == 1 ? "INPUT is missing" : "INPUT and OUTPUT are both needed", command);
    if (positional.size() > 2 || (req.statsOnly && positional.size() > 1))
        return Usage("too many file names: '" + positional.back() + "'", command);
    const std::string input = positional[0];
    const std::string output = positional.size() > 1 ? positional[1] : std::string();
    if (info.options.count("-stats") && stats.empty())
        return Usage("option -stats FILE is required for '" + command + "'", command);

    // Protect what the user owns before anything runs.
    std::error_code ec;
    if (!fs::exists(input, ec))
        return Usage("INPUT '" + input + "' does not exist", command);
    if (!output.empty() && SameFile(input, output))
        return Usage("OUTPUT is the same file as INPUT; refusing to overwrite it", command);
    if (!stats.empty() && SameFile(input, stats))
        return Usage("the statistics file is the same file as INPUT; refusing to overwrite it", command);
    if (!stats.empty() && !output.empty() && SameFile(output, stats))
        return Usage("the statistics file and OUTPUT are the same file", command);
    if (command == "dwt" || command == "dwt-inverse") {
        // Every wavelet run removes this name afterwards, so it must not be anything the user has.
        const std::string temp = WaveletTempPath(Q(output)).toStdString();
        if (SameFile(input, temp) || fs::exists(temp, ec))
            return Usage("'" + temp + "' exists and the wavelet run would overwrite and remove it; "
                         "move it or choose another OUTPUT", command);
    }
    OrvDataSource::DatasetFactory::Instance();
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.c_str());
    if (!driver || !driver->GetMetadataItem(GDAL_DCAP_RASTER) ||
        !(driver->GetMetadataItem(GDAL_DCAP_CREATE) || driver->GetMetadataItem(GDAL_DCAP_CREATECOPY)))
        return Usage("option -of: '" + format + "' is not a raster format GDAL can write", command);

    // The three records name their files alike.
    auto fillFiles = [&](auto& r) {
        r.strInputFile = Q(input);
        r.strStatFile = Q(stats);
        r.strOutputFile = Q(output);
        r.strFormat = Q(format);
    };
    if (command == "pca") {
        stForwardPCAInfo r;
        fillFiles(r);
        r.nOutDataType = PixelTypeIndex(outType);
        r.bSubtractMean = center;
        r.bCovariance = !corr;
        r.bStepwise = req.statsOnly;
        if (req.statsOnly) {
            r.nComponents = 0;
        } else {
            const int available = BandCount(input);
            r.nComponents = components ? components : available;
            if (available > 0 && r.nComponents > available)
                return Usage("option -n: INPUT has only " + std::to_string(available) + " bands", command);
        }
        req.record = r;
    } else if (command == "pca-inverse") {
        stInversePCAInfo r;
        fillFiles(r);
        r.nOutDataType = PixelTypeIndex(outType);
        req.record = r;
    } else {
        stTransInfo r;
        fillFiles(r);
        r.bForward = command.find("-inverse") == std::string::npos;
        if (command == "kt") {
            r.nTransType = 4;
            r.nSensorType = sensor == "tm" ? 0 : sensor == "mss" ? 1 : 2;
        } else if (command == "fft" || command == "fft-inverse") {
            r.nTransType = 2;
            r.vecBands = bands;
            r.nOutDataType = PixelTypeIndex(outType);
        } else if (command == "dwt" || command == "dwt-inverse") {
            r.nTransType = 3;
        } else {
            r.nTransType = 1;
        }
        req.record = r;
    }
    ParseResult result;
    result.kind = ParseResult::Run;
    result.request = std::move(req);
    return result;
}
