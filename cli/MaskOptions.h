#pragma once
// -srcnodata, -dstnodata and -nomask, as in gdalwarp: which pixels a run leaves out and what it
// writes in their place.
#include "frame/MaskRecords.h"

#include <boost/any.hpp>
#include <string>
#include <vector>

struct MaskOptions {
    std::vector<double> srcNoData; // -srcnodata "V [V...]": one value, or one per band
    bool noMask = false;           // -nomask: the unmasked run
    bool hasDstNoData = false;
    double dstNoData = 0;          // -dstnodata V
};

// The commands whose runs leave masked pixels out.
bool TakesMaskOptions(const std::string& command);
// The commands that fill masked pixels with their band's mean instead (fft, dwt).
bool FillsMaskedPixels(const std::string& command);
// -dstnodata given to a command that fills masked pixels, or empty.
std::string FillOptionsProblem(const std::string& command, const MaskOptions& mask);
// The mask options' help for `command`.
const char* MaskHelp(const std::string& command);
// One "Warning: band N: ..." line per band a Fourier or wavelet run filled, or empty.
std::string FilledPixelsWarning(const boost::any& record);
// Parses `flag` with its value (empty for -nomask); the problem, or empty.
std::string TakeMaskOption(const std::string& flag, const std::string& value, MaskOptions& mask);
// A usage problem of the options taken together with the input's band count and the output's
// pixel type (a GDAL type name), or empty.
std::string MaskOptionsProblem(const MaskOptions& mask, int inputBands, const std::string& outType);
// "statistics over 8,412,113 of 12,000,000 pixels"
std::string StatisticsOverLine(long long used, long long total);
// The masked record around `seed` unless -nomask asks for the unmasked run (then `seed` itself);
// a Tasseled Cap set record takes the options into its own mask.
boost::any MaskedRecord(const boost::any& seed, const MaskOptions& mask);
// The seed's record inside a masked one; any other record as it is.
boost::any SeedOf(const boost::any& record);
// The seed's record of type Seed, inside a masked record or as it is; null for any other record.
template <class Seed, class Masked>
const Seed* SeedIn(const boost::any& record)
{
    if (const auto* seed = boost::any_cast<Seed>(&record))
        return seed;
    const auto* masked = boost::any_cast<Masked>(&record);
    return masked ? &masked->info : nullptr;
}
inline const stTransInfo* TransSeed(const boost::any& r)
{
    if (const auto* mnf = boost::any_cast<stMaskedForwardMNFInfo>(&r))
        return &mnf->info;
    return SeedIn<stTransInfo, stMaskedTransInfo>(r);
}
inline const stForwardPCAInfo* ForwardPcaSeed(const boost::any& r)
{
    return SeedIn<stForwardPCAInfo, stMaskedForwardPCAInfo>(r);
}
inline const stInversePCAInfo* InversePcaSeed(const boost::any& r)
{
    return SeedIn<stInversePCAInfo, stMaskedInversePCAInfo>(r);
}
// The pixels a masked statistics run used and all of them; false for other records and for runs
// that left nothing out.
bool StatisticsCount(const boost::any& record, long long& used, long long& total);

// The mask options of `command`'s run as they would be typed again, read from its record: empty
// for the default masks or a command without them.
std::string MaskOptionsText(const std::string& command, const boost::any& record);

extern const char* const kMaskHelp;
extern const char* const kFillMaskHelp;
