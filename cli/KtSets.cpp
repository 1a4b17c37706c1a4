#include "KtSets.h"

#include <strings.h>

#include <climits>

namespace {

const std::vector<KtSet>& Sets()
{
    static const std::vector<KtSet> sets = {
        {"oli", "Landsat 8 and 9 OLI", "TOA reflectance (0-1)", "B2 B3 B4 B5 B6 B7 (blue, green, red, NIR, SWIR1, SWIR2)",
         "Baig, M.H.A., Zhang, L., Shuai, T., Tong, Q. (2014). Derivation of a tasselled cap transformation based on "
         "Landsat 8 at-satellite reflectance. Remote Sensing Letters 5(5): 423-431. doi:10.1080/2150704X.2014.915434",
         {"Brightness", "Greenness", "Wetness", "TCT4", "TCT5", "TCT6"},
         {0.3029, 0.2786, 0.4733, 0.5599, 0.5080, 0.1872,
          -0.2941, -0.2430, -0.5424, 0.7276, 0.0713, -0.1608,
          0.1511, 0.1973, 0.3283, 0.3407, -0.7117, -0.4559,
          -0.8239, 0.0849, 0.4396, -0.0580, 0.2013, -0.2773,
          -0.3294, 0.0557, 0.1056, 0.1855, -0.4349, 0.8085,
          0.1079, -0.9023, 0.4119, 0.0575, -0.0259, 0.0252},
         {{6, 6, {1, 2, 3, 4, 5, 6}, "B2-B7"},
          {7, INT_MAX, {2, 3, 4, 5, 6, 7}, "B1 coastal, B2-B7, then any others"}}},
        {"s2", "Sentinel-2 MSI Level-1C", "TOA reflectance (0-1)", "B2 B3 B4 B8 B11 B12",
         "Shi, T., Xu, H. (2019). Derivation of tasseled cap transformation coefficients for Sentinel-2 MSI "
         "at-sensor reflectance data. IEEE JSTARS 12(10): 4038-4048. doi:10.1109/JSTARS.2019.2938388",
         {"Brightness", "Greenness", "Wetness"},
         {0.3510, 0.3813, 0.3437, 0.7196, 0.2396, 0.1949,
          -0.3599, -0.3533, -0.4734, 0.6633, 0.0087, -0.2856,
          0.2578, 0.2305, 0.0883, 0.1071, -0.7611, -0.5308},
         {{6, 6, {1, 2, 3, 4, 5, 6}, "B2 B3 B4 B8 B11 B12"},
          {10, 10, {1, 2, 3, 7, 9, 10}, "B2 B3 B4 B5 B6 B7 B8 B8A B11 B12"},
          {12, 12, {2, 3, 4, 8, 11, 12}, "B1 B2 B3 B4 B5 B6 B7 B8 B8A B9 B11 B12"},
          {13, 13, {2, 3, 4, 8, 12, 13}, "B1 B2 B3 B4 B5 B6 B7 B8 B8A B9 B10 B11 B12"}}},
        {"modis", "MODIS NBAR (MCD43)", "surface reflectance (0-1)", "bands 1-7 (red, NIR1, blue, green, NIR2, SWIR1, SWIR2)",
         "Lobser, S.E., Cohen, W.B. (2007). MODIS tasselled cap: land cover characteristics expressed through "
         "transformed MODIS data. International Journal of Remote Sensing 28(22): 5079-5101.",
         {"Brightness", "Greenness", "Wetness"},
         {0.4395, 0.5945, 0.2460, 0.3918, 0.3506, 0.2136, 0.2678,
          -0.4064, 0.5129, -0.2744, -0.2893, 0.4882, -0.0036, -0.4169,
          0.1147, 0.2489, 0.2408, 0.3132, -0.3122, -0.6416, -0.5087},
         {{7, INT_MAX, {1, 2, 3, 4, 5, 6, 7}, "bands 1-7, then any others"}}},
        {"tm-sr", "Landsat 4, 5 TM (and 7 ETM+)", "surface reflectance (0-1)", "TM1 TM2 TM3 TM4 TM5 TM7",
         "Crist, E.P. (1985). A TM Tasseled Cap equivalent transformation for reflectance factor data. "
         "Remote Sensing of Environment 17(3): 301-306. doi:10.1016/0034-4257(85)90102-6",
         {"Brightness", "Greenness", "Wetness", "Fourth", "Fifth", "Sixth"},
         {0.2043, 0.4158, 0.5524, 0.5741, 0.3124, 0.2303,
          -0.1603, -0.2819, -0.4934, 0.7940, -0.0002, -0.1446,
          0.0315, 0.2021, 0.3102, 0.1594, -0.6806, -0.6109,
          -0.2117, -0.0284, 0.1302, -0.1007, 0.6529, -0.7078,
          -0.8669, -0.1835, 0.3856, 0.0408, -0.1132, 0.2272,
          0.3677, -0.8200, 0.4354, 0.0518, -0.0066, -0.0104},
         {{6, 6, {1, 2, 3, 4, 5, 6}, "TM1 TM2 TM3 TM4 TM5 TM7"},
          {7, 7, {1, 2, 3, 4, 5, 7}, "TM1-TM7, thermal TM6 included"}}},
    };
    return sets;
}

std::string Counts(const KtSet& set)
{
    bool contiguous = set.rules.back().most == INT_MAX;
    for (std::size_t i = 1; i < set.rules.size(); ++i)
        contiguous = contiguous && set.rules[i].fewest == set.rules[i - 1].most + 1;
    if (contiguous)
        return std::to_string(set.rules[0].fewest) + " or more";
    std::string s;
    for (std::size_t i = 0; i < set.rules.size(); ++i) {
        const KtBandRule& r = set.rules[i];
        s += i == 0 ? "" : i + 1 == set.rules.size() ? " or " : ", ";
        s += std::to_string(r.fewest) + (r.most > r.fewest ? " or more" : "");
    }
    return s;
}

std::string Numbers(const std::vector<int>& bands)
{
    std::string s;
    for (int b : bands) {
        if (!s.empty())
            s += ',';
        s += std::to_string(b);
    }
    return s;
}

std::string Names(const std::vector<const char*>& names)
{
    std::string s;
    for (const char* n : names) {
        if (!s.empty())
            s += ", ";
        s += n;
    }
    return s;
}

// Words of `text` in lines of at most 96 columns, each starting with 11 blanks.
std::string Wrapped(const std::string& text)
{
    const std::string indent(11, ' ');
    std::string out, line;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find(' ', start);
        end = end == std::string::npos ? text.size() : end;
        const std::string word = text.substr(start, end - start);
        if (!line.empty() && indent.size() + line.size() + 1 + word.size() > 96) {
            out += indent + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        start = end + 1;
    }
    return out + indent + line + "\n";
}

} // namespace

const KtSet* FindKtSet(const std::string& name)
{
    for (const KtSet& set : Sets())
        if (strcasecmp(name.c_str(), set.name) == 0)
            return &set;
    return nullptr;
}

std::vector<int> KtSetBands(const KtSet& set, int bandCount)
{
    for (const KtBandRule& r : set.rules)
        if (bandCount >= r.fewest && bandCount <= r.most)
            return r.bands;
    return {};
}

std::string KtBandCountProblem(const KtSet& set, int bandCount)
{
    return "-sensor " + std::string(set.name) + " takes a stack of " + Counts(set) + " bands (see 'tavtransform kt " +
           "--help'); INPUT has " + std::to_string(bandCount);
}

std::vector<int> KtBuiltinBands(int code, int bandCount)
{
    if (code == 1)
        return {1, 2, 3, 4};
    if (code == 0 && bandCount == 7)
        return {1, 2, 3, 4, 5, 7};
    return {1, 2, 3, 4, 5, 6};
}

const char* KtHelp()
{
    static const std::string help = [] {
        std::string s =
            "  -sensor NAME  the coefficient set, in any case; input bands are used as listed:\n"
            "    tm     Landsat 4, 5 TM, DN (digital numbers): bands 1-5 and 6 (band 7 for a 7-band\n"
            "           stack); Brightness, green, humidity, with additive constants. The default.\n"
            "    mss    Landsat MSS, DN: bands 1-4; Soil Brightness Index, Green index, Yellowness index,\n"
            "           The fourth component\n"
            "    etm    Landsat 7 ETM+, TOA reflectance: bands 1-6; Brightness, green, humidity and\n"
            "           the fourth to sixth component\n";
        for (const KtSet& set : Sets()) {
            const std::string name = set.name;
            s += "    " + name + std::string(7 - name.size(), ' ') + set.sensor + ", " + set.quantity + ":\n" +
                 Wrapped(std::string(set.columns) + ".");
            for (const KtBandRule& r : set.rules)
                s += Wrapped(std::to_string(r.fewest) + (r.most == r.fewest ? "" : " or more") + " bands (" + r.stack +
                             "): bands " + Numbers(r.bands));
            s += Wrapped("Components: " + Names(set.components) + ".") + Wrapped(set.reference);
        }
        s += "  -coefficients FILE.csv  your own set: one row per component, its name, one coefficient per\n"
             "                band of INPUT in band order, then optionally an additive constant. Blank lines,\n"
             "                lines starting with # and a first line without numbers (a header) are skipped.\n"
             "  -unscale      apply each band's scale and offset from its metadata first, value x scale +\n"
             "                offset as gdal_translate -unscale does; for oli, s2, modis, tm-sr, -coefficients.\n"
             "                Without it, a band with a scale or offset is used as stored, with a warning.\n"
             "  tm, mss and etm are the plug-in's built-in sets: their output origin lies half a pixel in\n"
             "  from the input's. The other sets and -coefficients keep the input's origin. Every set\n"
             "  follows the mask options below.\n";
        return s;
    }();
    return help.c_str();
}
