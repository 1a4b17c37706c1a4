#include "KtRecord.h"

#include "FileChecks.h"
#include "KtSets.h"

#include "frame/stTasseledCapInfo.h"

#include <gdal_priv.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <utility>

namespace {

std::string Trimmed(const std::string& s)
{
    const auto first = s.find_first_not_of(" \t\r");
    return first == std::string::npos ? std::string() : s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> Fields(const std::string& line)
{
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t comma; (comma = line.find(',', start)) != std::string::npos; start = comma + 1)
        fields.push_back(Trimmed(line.substr(start, comma - start)));
    fields.push_back(Trimmed(line.substr(start)));
    return fields;
}

// Locale-independent, the whole field, finite.
bool ParseNumber(const std::string& field, double& value)
{
    const char* first = field.data() + (!field.empty() && field[0] == '+');
    const char* last = field.data() + field.size();
    const auto [end, ec] = std::from_chars(first, last, value);
    return ec == std::errc() && end == last && first != last && std::isfinite(value);
}

bool AnyNumber(const std::vector<std::string>& fields)
{
    double v;
    for (std::size_t i = 1; i < fields.size(); ++i)
        if (ParseNumber(fields[i], v))
            return true;
    return false;
}

std::string Unquoted(const std::string& s)
{
    return s.size() >= 2 && s.front() == '"' && s.back() == '"' ? s.substr(1, s.size() - 2) : s;
}

// One data row into the set; the problem, said at `where`, or empty.
std::string TakeRow(const std::vector<std::string>& fields, const std::string& where, KtUserSet& set)
{
    const std::string name = Unquoted(fields[0]);
    if (name.empty())
        return where + ": the first field, the component's name, is empty";
    if (fields.size() < 2)
        return where + ": no coefficients after the name '" + name + "'";
    std::vector<double> row;
    for (std::size_t i = 1; i < fields.size(); ++i) {
        double v = 0;
        if (fields[i].empty())
            return where + ", field " + std::to_string(i + 1) + ": empty where a number belongs";
        if (!ParseNumber(fields[i], v))
            return where + ", field " + std::to_string(i + 1) + ": '" + fields[i] + "' is not a number";
        row.push_back(v);
    }
    set.names.push_back(name);
    set.rows.push_back(std::move(row));
    return {};
}

// The record's matrix and constants from the user's rows: one coefficient per INPUT band, then
// optionally a constant.
std::string FitUserSet(const KtUserSet& user, const std::string& path, int inputBands, stTasseledCapInfo& info)
{
    const int values = static_cast<int>(user.rows[0].size());
    const int bands = inputBands > 0 ? inputBands : values;
    if (values != bands && values != bands + 1)
        return "option -coefficients: the rows of '" + path + "' have " + std::to_string(values) +
               " numbers, INPUT has " + std::to_string(bands) + " bands: each row needs " + std::to_string(bands) +
               " coefficients, one per band, optionally followed by a constant";
    for (std::size_t k = 0; k < user.rows.size(); ++k) {
        info.vecNames.push_back(QString::fromStdString(user.names[k]));
        info.vecCoefficients.insert(info.vecCoefficients.end(), user.rows[k].begin(), user.rows[k].begin() + bands);
        if (values > bands)
            info.vecConstants.push_back(user.rows[k].back());
    }
    for (int b = 1; b <= bands; ++b)
        info.vecBands.push_back(b);
    info.strCoefficientFile = QString::fromStdString(path);
    return {};
}

void FitPublishedSet(const KtSet& set, const std::vector<int>& bands, stTasseledCapInfo& info)
{
    info.vecCoefficients = set.matrix;
    info.vecBands = bands;
    for (const char* name : set.components)
        info.vecNames.push_back(name);
    info.strSensor = set.name;
    info.strReference = set.reference;
}

struct BandScale {
    int band;
    double scale = 1, offset = 0;
};

// The scale and offset INPUT's metadata gives each of the bands; 1 and 0 where it gives none.
std::vector<BandScale> ReadScales(const std::string& input, const std::vector<int>& bands)
{
    std::vector<BandScale> scales;
    GDALAllRegister();
    std::unique_ptr<GDALDataset> ds(GDALDataset::FromHandle(
        GDALOpenEx(input.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr)));
    for (int b : bands) {
        BandScale s{b};
        if (GDALRasterBand* band = ds && b <= ds->GetRasterCount() ? ds->GetRasterBand(b) : nullptr) {
            s.scale = band->GetScale();
            s.offset = band->GetOffset();
        }
        scales.push_back(s);
    }
    return scales;
}

std::string Number(double v)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

// One line per band the set reads whose values are stored scaled, said before the run.
void WarnOfScales(Options& o, const std::vector<int>& bands, bool canUnscale)
{
    for (const BandScale& s : ReadScales(o.input, bands)) {
        if (s.scale == 1 && s.offset == 0)
            continue;
        std::string& w = o.request.warning;
        if (!w.empty())
            w += '\n';
        w += std::string("Warning: INPUT band ") + std::to_string(s.band) + " has scale " +
             Number(s.scale) + " and offset " + Number(s.offset) + ", which are not applied: the transform reads " +
             "the stored values" + (canUnscale ? "; -unscale applies them first" : "");
    }
}

} // namespace

std::string ReadKtCoefficients(const std::string& path, KtUserSet& set)
{
    std::ifstream file(path);
    if (!file)
        return "cannot read '" + path + "'";
    std::string line;
    bool first = true;
    for (int n = 1; std::getline(file, line); ++n) {
        // Spreadsheets often begin their CSV files with a byte order mark.
        if (n == 1 && line.rfind("\xEF\xBB\xBF", 0) == 0)
            line.erase(0, 3);
        line = Trimmed(line);
        if (line.empty() || line[0] == '#')
            continue;
        const std::vector<std::string> fields = Fields(line);
        const std::string where = "'" + path + "' line " + std::to_string(n);
        if (std::exchange(first, false) && fields.size() > 1 && !AnyNumber(fields))
            continue; // a header
        if (std::string problem = TakeRow(fields, where, set); !problem.empty())
            return problem;
        if (set.rows.back().size() != set.rows[0].size())
            return where + ": " + std::to_string(set.rows.back().size()) + " numbers where the first row has " +
                   std::to_string(set.rows[0].size()) + "; every row needs one coefficient per band, " +
                   "optionally followed by a constant";
    }
    if (file.bad())
        return "cannot read '" + path + "'";
    if (set.rows.empty())
        return "'" + path + "' holds no coefficient rows";
    return {};
}

int KtOutputBands(const Options& o)
{
    if (!o.coefficients.empty()) {
        KtUserSet user;
        return ReadKtCoefficients(o.coefficients, user).empty() ? static_cast<int>(user.rows.size()) : 0;
    }
    if (const KtSet* set = FindKtSet(o.sensor))
        return static_cast<int>(set->components.size());
    const int builtin[] = {3, 4, 6};
    return builtin[SensorCode(o.sensor) == 0 ? 0 : SensorCode(o.sensor) == 1 ? 1 : 2];
}

ParseResult KtRequest(Options& o)
{
    const ParseResult run{ParseResult::Run, {}, {}, {}};
    const KtSet* set = FindKtSet(o.sensor);
    // Only a -sensor tm typed out cannot be told from the default.
    if (!o.coefficients.empty() && (set || SensorCode(o.sensor) > 0))
        return Usage("options -sensor and -coefficients exclude each other", o.command);
    if (!set && o.coefficients.empty()) {
        if (o.unscale)
            return Usage("option -unscale goes with -sensor oli, s2, modis, tm-sr or -coefficients; the built-in "
                         "sets tm, mss and etm read the stored values", o.command);
        WarnOfScales(o, KtBuiltinBands(SensorCode(o.sensor), o.inputBands), false);
        return run;
    }
    stTasseledCapInfo info;
    info.trans = boost::any_cast<stTransInfo>(o.request.record);
    if (set) {
        std::vector<int> bands = KtSetBands(*set, o.inputBands);
        // INPUT that does not open is the plug-in's to report.
        if (bands.empty() && o.inputBands > 0)
            return Usage(KtBandCountProblem(*set, o.inputBands), o.command);
        FitPublishedSet(*set, bands.empty() ? set->rules[0].bands : bands, info);
    } else {
        KtUserSet user;
        std::string problem = ReadKtCoefficients(o.coefficients, user);
        if (problem.empty())
            problem = FitUserSet(user, o.coefficients, o.inputBands, info);
        if (!problem.empty())
            return Usage(problem.rfind("option ", 0) == 0 ? problem : "option -coefficients: " + problem, o.command);
    }
    if (o.unscale)
        for (const BandScale& s : ReadScales(o.input, info.vecBands)) {
            info.vecScale.push_back(s.scale);
            info.vecOffset.push_back(s.offset);
        }
    else
        WarnOfScales(o, info.vecBands, true);
    o.request.record = info;
    return run;
}
