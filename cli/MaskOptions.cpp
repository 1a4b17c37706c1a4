#include "MaskOptions.h"

#include "frame/stTasseledCapInfo.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace {

bool ParseValue(const std::string& text, double& value)
{
    try {
        size_t used = 0;
        value = std::stod(text, &used);
        return used == text.size();
    } catch (...) {
        return false;
    }
}

stMaskInfo MaskInfo(const MaskOptions& o)
{
    stMaskInfo info;
    info.vecSrcNoData = o.srcNoData;
    info.bUseMasks = !o.noMask;
    if (o.hasDstNoData)
        info.dDstNoData = o.dstNoData;
    return info;
}

} // namespace

const char* const kMaskHelp =
    "  -srcnodata \"V [V...]\"  input value(s) to leave out, one for all bands or one per band;\n"
    "                        replaces the bands' own masks\n"
    "  -nomask      no masking: every pixel counts, as without no-data\n"
    "  -dstnodata V output value of masked pixels; default NaN for Float32/Float64 outputs and\n"
    "               the type's lowest value for integer outputs\n"
    "  By default a pixel is left out where any band used is masked by GDAL's rules (mask band,\n"
    "  alpha band, no-data value) or, for floating-point inputs, is NaN or infinite.\n";

const char* const kFillMaskHelp =
    "  -srcnodata \"V [V...]\"  input value(s) to treat as masked, one for all bands or one per band\n"
    "                        of INPUT; replaces the bands' own masks\n"
    "  -nomask      no masking: every pixel is transformed as it is\n"
    "  By default a pixel of a band is masked where GDAL's rules for that band say so (mask band,\n"
    "  alpha band, no-data value) or, in a floating-point band, where it is NaN or infinite. Masked\n"
    "  pixels are given the mean of the band's other pixels before the transform, with a warning\n"
    "  saying how many; the output declares no no-data value, so -dstnodata does not apply.\n";

bool TakesMaskOptions(const std::string& command)
{
    return command == "kt" || command == "pca" || command == "pca-inverse" || command == "mnf" ||
           command == "mnf-inverse" || FillsMaskedPixels(command);
}

bool FillsMaskedPixels(const std::string& command) { return command == "fft" || command == "dwt"; }

const char* MaskHelp(const std::string& command)
{
    return FillsMaskedPixels(command) ? kFillMaskHelp : TakesMaskOptions(command) ? kMaskHelp : "";
}

std::string FillOptionsProblem(const std::string& command, const MaskOptions& mask)
{
    if (FillsMaskedPixels(command) && mask.hasDstNoData)
        return "option -dstnodata does not apply to " + command +
               ": its output has no no-data value, masked pixels are filled with their band's mean";
    return {};
}

std::string TakeMaskOption(const std::string& flag, const std::string& value, MaskOptions& mask)
{
    if (flag == "-nomask") {
        mask.noMask = true;
    } else if (flag == "-srcnodata") {
        std::istringstream words(value);
        std::string word;
        double v = 0;
        while (words >> word) {
            if (!ParseValue(word, v))
                return "option -srcnodata takes numbers (or nan), one for all bands or one per band";
            mask.srcNoData.push_back(v);
        }
        if (mask.srcNoData.empty())
            return "option -srcnodata takes numbers (or nan), one for all bands or one per band";
    } else if (flag == "-dstnodata") {
        if (!ParseValue(value, mask.dstNoData))
            return "option -dstnodata takes a number (or nan)";
        mask.hasDstNoData = true;
    }
    return {};
}

namespace {

// Whole numbers in the range of an integer GDAL type; floating-point types take any value.
bool FitsType(double v, const std::string& type)
{
    const struct { const char* name; double lo, hi; } kIntegers[] = {
        {"byte", 0, 255}, {"uint16", 0, 65535}, {"int16", -32768, 32767},
        {"uint32", 0, 4294967295.0}, {"int32", -2147483648.0, 2147483647.0}};
    std::string lower;
    for (char c : type)
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const auto& t : kIntegers)
        if (lower == t.name)
            return v == std::trunc(v) && t.lo <= v && v <= t.hi;
    return true;
}

std::string Grouped(long long v)
{
    const std::string digits = std::to_string(v);
    std::string s;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && digits[i - 1] != '-' && (digits.size() - i) % 3 == 0)
            s += ',';
        s += digits[i];
    }
    return s;
}

} // namespace

std::string StatisticsOverLine(long long used, long long total)
{
    return "statistics over " + Grouped(used) + " of " + Grouped(total) + " pixels";
}

std::string MaskOptionsProblem(const MaskOptions& mask, int inputBands, const std::string& outType)
{
    if (mask.hasDstNoData && !FitsType(mask.dstNoData, outType))
        return "option -dstnodata: the value does not fit the output type " + outType;
    if (mask.srcNoData.size() > 1 && inputBands > 0 && static_cast<int>(mask.srcNoData.size()) != inputBands)
        return "option -srcnodata gives " + std::to_string(mask.srcNoData.size()) + " values; INPUT has " +
               std::to_string(inputBands) + " bands (give one value or one per band)";
    if (mask.noMask && (!mask.srcNoData.empty() || mask.hasDstNoData))
        return "option -nomask turns masking off; it does not go with -srcnodata or -dstnodata";
    return {};
}

boost::any MaskedRecord(const boost::any& seed, const MaskOptions& mask)
{
    // A set the host brings carries its mask itself, -nomask included.
    if (const auto* r = boost::any_cast<stTasseledCapInfo>(&seed)) {
        stTasseledCapInfo set = *r;
        set.mask = MaskInfo(mask);
        return set;
    }
    if (mask.noMask)
        return seed;
    if (const auto* r = boost::any_cast<stTransInfo>(&seed); r && r->nTransType == 1 && r->bForward)
        return stMaskedForwardMNFInfo{*r, MaskInfo(mask), 0, 0};
    if (const auto* r = boost::any_cast<stTransInfo>(&seed))
        return stMaskedTransInfo{*r, MaskInfo(mask), {}};
    if (const auto* r = boost::any_cast<stForwardPCAInfo>(&seed))
        return stMaskedForwardPCAInfo{*r, MaskInfo(mask), 0, 0};
    if (const auto* r = boost::any_cast<stInversePCAInfo>(&seed))
        return stMaskedInversePCAInfo{*r, MaskInfo(mask)};
    return seed;
}

boost::any SeedOf(const boost::any& record)
{
    if (const auto* r = boost::any_cast<stMaskedTransInfo>(&record))
        return r->info;
    if (const auto* r = boost::any_cast<stMaskedForwardPCAInfo>(&record))
        return r->info;
    if (const auto* r = boost::any_cast<stMaskedInversePCAInfo>(&record))
        return r->info;
    if (const auto* r = boost::any_cast<stMaskedForwardMNFInfo>(&record))
        return r->info;
    return record;
}

std::string FilledPixelsWarning(const boost::any& record)
{
    const auto* r = boost::any_cast<stMaskedTransInfo>(&record);
    std::string lines;
    if (!r)
        return lines;
    for (const stBandFill& f : r->vecFilled) {
        char mean[32];
        std::snprintf(mean, sizeof mean, "%.7g", f.dValue);
        if (!lines.empty())
            lines += '\n';
        lines += "Warning: band ";
        lines += std::to_string(f.nBand);
        lines += ": " + Grouped(f.nFilled);
        lines += " of " + Grouped(f.nPixels);
        lines += " pixels were masked and filled with the mean of the others, ";
        lines += mean;
        lines += ", before the transform";
    }
    return lines;
}

bool StatisticsCount(const boost::any& record, long long& used, long long& total)
{
    if (const auto* r = boost::any_cast<stMaskedForwardPCAInfo>(&record)) {
        used = r->nValidPixels;
        total = r->nTotalPixels;
    } else if (const auto* m = boost::any_cast<stMaskedForwardMNFInfo>(&record)) {
        used = m->nValidPixels;
        total = m->nTotalPixels;
    } else {
        return false;
    }
    // Said only where something was left out: otherwise the statistics are the unmasked run's.
    return total > 0 && used != total;
}

namespace {

// The mask a record carries; null for an unmasked record.
const stMaskInfo* MaskOf(const boost::any& record)
{
    if (const auto* r = boost::any_cast<stMaskedTransInfo>(&record))
        return &r->mask;
    if (const auto* r = boost::any_cast<stMaskedForwardPCAInfo>(&record))
        return &r->mask;
    if (const auto* r = boost::any_cast<stMaskedInversePCAInfo>(&record))
        return &r->mask;
    if (const auto* r = boost::any_cast<stTasseledCapInfo>(&record))
        return &r->mask;
    if (const auto* r = boost::any_cast<stMaskedForwardMNFInfo>(&record))
        return &r->mask;
    return nullptr;
}

// The shortest text that reads back as the same double ("-9999", "0.1", "nan").
std::string Shortest(double v)
{
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, v).ptr;
    return std::string(text, end);
}

} // namespace

std::string MaskOptionsText(const std::string& command, const boost::any& record)
{
    if (!TakesMaskOptions(command))
        return {};
    const stMaskInfo* mask = MaskOf(record);
    if (!mask || !mask->bUseMasks)
        return "-nomask";
    std::string text;
    if (!mask->vecSrcNoData.empty()) {
        std::string values;
        for (double v : mask->vecSrcNoData) {
            if (!values.empty())
                values += ' ';
            values += Shortest(v);
        }
        text = "-srcnodata " + (mask->vecSrcNoData.size() > 1 ? "\"" + values + "\"" : values);
    }
    // NaN is the default: the output type's own value.
    if (!std::isnan(mask->dDstNoData))
        text += (text.empty() ? "-dstnodata " : " -dstnodata ") + Shortest(mask->dDstNoData);
    return text;
}
