#include "MaskOptions.h"

#include <cctype>
#include <cmath>
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

bool TakesMaskOptions(const std::string& command)
{
    return command == "kt" || command == "pca" || command == "pca-inverse" || command == "mnf" ||
           command == "mnf-inverse";
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
    if (mask.noMask)
        return seed;
    if (const auto* r = boost::any_cast<stTransInfo>(&seed); r && r->nTransType == 1 && r->bForward)
        return stMaskedForwardMNFInfo{*r, MaskInfo(mask), 0, 0};
    if (const auto* r = boost::any_cast<stTransInfo>(&seed))
        return stMaskedTransInfo{*r, MaskInfo(mask)};
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
