#include "Options.h"

#include "KtSets.h"
#include "Quicklook.h"

#include <strings.h>

#include <map>
#include <set>

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
        {"kt", {"Tasseled Cap components (Float32)",
                "kt [-sensor tm|mss|etm|oli|s2|modis|tm-sr | -coefficients FILE.csv] [-unscale] INPUT OUTPUT",
                KtHelp(), {"-sensor", "-coefficients", "-unscale"}}},
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
                 "pca -stats FILE [-ot TYPE] [-n N] [-corr] [-no-center] [-stats-only] INPUT [OUTPUT]",
                 "  -stats FILE   statistics file to write (required)\n"
                 "  -ot TYPE      output pixel type, default Float32\n"
                 "  -n N          use bands 1..N of the input and write N components; default all bands\n"
                 "  -corr         rotate by the correlation matrix instead of the covariance matrix\n"
                 "  -no-center    project the bands as they are, without subtracting their means first;\n"
                 "                pca-inverse, which always adds the means back, then returns INPUT plus them\n"
                 "  -center       subtract each band's mean before projecting; the default\n"
                 "  -ot Byte, Int16 and the other integer types truncate the components toward zero;\n"
                 "  components beyond the type's range are stretched by INPUT's sample range into it\n"
                 "  -stats-only   write the statistics file and print the eigenvalues; no OUTPUT\n",
                 {"-stats", "-ot", "-n", "-corr", "-center", "-no-center", "-stats-only"}}},
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
    "  -co NAME=VALUE  creation option of the output format, repeatable (as in gdal_translate)\n"
    "  -q              no progress\n"
    "  -quicklook FILE.png  preview of the result, at most 1024 pixels on the long side\n"
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
    return std::string("Usage: tavtransform ") + info.usage + "\n" + info.summary + "\n\n" + info.details +
           MaskHelp(name) + "\n" + kCommonOptions;
}

const char* const kPixelTypes[] = {"Byte", "UInt16", "Int16", "UInt32", "Int32", "Float32", "Float64"};
const char* const kSensors[] = {"tm", "mss", "etm"};

// The position of `name` in the table, in any case as GDAL's tools take their values; -1 when absent.
template <size_t N>
int IndexOf(const char* const (&names)[N], const std::string& name)
{
    for (size_t i = 0; i < N; ++i)
        if (strcasecmp(name.c_str(), names[i]) == 0)
            return static_cast<int>(i);
    return -1;
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

// Parses one command-specific option at args[i], moving i past its value; the problem or empty.
std::string TakeOption(const std::vector<std::string>& args, size_t& i, Options& o)
{
    const std::string& a = args[i];
    auto value = [&](std::string& out) {
        if (i + 1 >= args.size())
            return false;
        out = args[++i];
        return true;
    };
    std::string v;
    if (a == "-sensor") {
        if (!value(o.sensor) || (SensorCode(o.sensor) < 0 && !FindKtSet(o.sensor)))
            return "option -sensor takes tm, mss, etm, oli, s2, modis or tm-sr";
    } else if (a == "-coefficients") {
        if (!value(o.coefficients) || o.coefficients.empty())
            return "option -coefficients needs a CSV file name";
    } else if (a == "-unscale") {
        o.unscale = true;
    } else if (a == "-b") {
        int b = 0;
        if (!value(v) || !ParseInt(v, b) || b < 1)
            return "option -b takes a band number from 1 up";
        o.bands.push_back(b);
    } else if (a == "-ot") {
        if (!value(o.outType) || PixelTypeIndex(o.outType) < 0)
            return "option -ot takes Byte, UInt16, Int16, UInt32, Int32, Float32 or Float64";
    } else if (a == "-stats") {
        if (!value(o.stats) || o.stats.empty())
            return "option -stats needs a file name";
    } else if (a == "-n") {
        if (!value(v) || !ParseInt(v, o.components) || o.components < 1)
            return "option -n takes a band count from 1 up";
    } else if (a == "-corr") {
        o.corr = true;
    } else if (a == "-center" || a == "-no-center") {
        o.center = a == "-center";
    } else if (a == "-stats-only") {
        o.request.statsOnly = true;
    } else if (a == "-srcnodata" || a == "-dstnodata") {
        if (!value(v))
            return "option " + a + " needs a value";
        return TakeMaskOption(a, v, o.mask);
    } else if (a == "-nomask") {
        return TakeMaskOption(a, {}, o.mask);
    }
    return {};
}

// True when `word` is an option seen before that takes no repeats (only -b, -co and -q do).
bool RepeatedOption(const std::string& word, std::set<std::string>& seen)
{
    static const std::set<std::string> repeatable = {"-b", "-co", "-srcnodata", "-q"};
    return word.size() > 1 && word[0] == '-' && !repeatable.count(word) && !seen.insert(word).second;
}

// INPUT and OUTPUT from the words that are not options.
ParseResult TakeFileNames(const std::vector<std::string>& positional, Options& o)
{
    const size_t needed = o.request.statsOnly ? 1 : 2;
    if (positional.size() < needed)
        return Usage(needed == 1 ? "INPUT is missing" : "INPUT and OUTPUT are both needed", o.command);
    if (positional.size() > 2 || (o.request.statsOnly && positional.size() > 1))
        return Usage("too many file names: '" + positional.back() + "'", o.command);
    for (size_t k = 0; k < positional.size(); ++k)
        if (positional[k].empty())
            return Usage(std::string(k == 0 ? "INPUT" : "OUTPUT") + " is an empty file name", o.command);
    o.input = positional[0];
    o.output = positional.size() > 1 ? positional[1] : std::string();
    if (TakesStatistics(o.command) && o.stats.empty())
        return Usage("option -stats FILE is required for '" + o.command + "'", o.command);
    return {ParseResult::Run, {}, {}, {}};
}

} // namespace

ParseResult Usage(const std::string& problem, const std::string& command)
{
    ParseResult r;
    r.kind = ParseResult::UsageError;
    r.text = problem;
    r.hint = command.empty() ? "Try 'tavtransform --help'." : "Try 'tavtransform " + command + " --help'.";
    return r;
}

bool TakesStatistics(const std::string& command) { return Commands().at(command).options.count("-stats") > 0; }

bool WritesStatistics(const Options& options)
{
    return options.command == "pca" || options.command == "mnf";
}

int PixelTypeIndex(const std::string& name) { return IndexOf(kPixelTypes, name); }
const char* PixelTypeNameAt(int index) { return kPixelTypes[index >= 0 && index < 7 ? index : 6]; }
int SensorCode(const std::string& name) { return IndexOf(kSensors, name); }
const char* SensorName(int code) { return kSensors[code >= 0 && code < 3 ? code : 2]; }

ParseResult ParseOptions(const std::vector<std::string>& args, Options& o)
{
    if (args.empty())
        return Usage("no command given");
    o.command = args[0];
    if (o.command == "-h" || o.command == "--help")
        return {ParseResult::Done, {}, GeneralHelp(), {}};
    if (o.command == "--version")
        return {ParseResult::Done, {}, std::string("tavtransform ") + TAV_VERSION + "\n", {}};
    const auto found = Commands().find(o.command);
    if (found == Commands().end())
        return Usage("unknown command '" + o.command + "'");
    o.request.command = o.command;
    std::vector<std::string> positional;
    std::set<std::string> seen;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (RepeatedOption(a, seen))
            return Usage("option " + a + " is given twice; say it once", o.command);
        if (a == "-h" || a == "--help")
            return {ParseResult::Done, {}, CommandHelp(o.command), {}};
        if (a == "-q") {
            o.request.quiet = true;
        } else if (a == "-of" || a == "--plugin" || a == "-quicklook") {
            if (i + 1 >= args.size() || (a == "-quicklook" && args[i + 1].empty()))
                return Usage("option " + a + " needs a value", o.command);
            (a == "-of" ? o.format : a == "-quicklook" ? o.request.quicklook : o.request.pluginPath) = args[++i];
        } else if (a == "-co") {
            if (i + 1 >= args.size() || args[i + 1].find('=') == std::string::npos || args[i + 1][0] == '=')
                return Usage("option -co takes NAME=VALUE", o.command);
            o.creationOptions.push_back(args[++i]);
        } else if (a.size() > 1 && a[0] == '-') {
            const bool maskOption = a == "-srcnodata" || a == "-dstnodata" || a == "-nomask";
            if (!found->second.options.count(a) && !(maskOption && TakesMaskOptions(o.command)))
                return Usage("option " + a + " is not an option of '" + o.command + "'", o.command);
            if (std::string problem = TakeOption(args, i, o); !problem.empty())
                return Usage(problem, o.command);
        } else {
            positional.push_back(a);
        }
    }
    if (seen.count("-center") && seen.count("-no-center"))
        return Usage("options -center and -no-center contradict each other; give one", o.command);
    if (std::string problem = QuicklookProblem(o.request.quicklook, o.request.statsOnly); !problem.empty())
        return Usage(problem, o.command);
    return TakeFileNames(positional, o);
}
