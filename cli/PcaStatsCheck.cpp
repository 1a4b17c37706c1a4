#include "PcaStatsCheck.h"
#include "MaskOptions.h"

#include <QFile>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <sstream>

std::string PcaStatsProblem(const Request& request)
{
    const boost::any seed = SeedOf(request.record);
    const auto* info = boost::any_cast<stInversePCAInfo>(&seed);
    if (!info)
        return {};
    const QByteArray path = QFile::encodeName(info->strStatFile);
    std::error_code ec;
    const auto bytes = std::filesystem::file_size(path.constData(), ec);
    std::FILE* f = ec ? nullptr : std::fopen(path.constData(), "rb");
    if (!f)
        return {}; // the plug-in says that it cannot open it
    double header = 0.0;
    const bool gotHeader = std::fread(&header, sizeof header, 1, f) == 1;
    std::fclose(f);
    std::ostringstream text;
    text << "statistics file '" << path.constData() << "' holds " << bytes << " bytes";
    // A count beyond this could not come with a file of any size seen here.
    const double n = gotHeader && std::isfinite(header) ? std::trunc(header) : 0.0;
    if (n < 1 || n > 1e6) {
        text << ", but its band count (" << (gotHeader ? header : 0.0) << ") is not a usable number of bands";
        return text.str();
    }
    const double expected = 8.0 * (2.0 * n * n + 3.0 * n + 1.0);
    if (static_cast<double>(bytes) == expected)
        return {};
    text << "; for its " << static_cast<long long>(n) << " bands it must hold " << static_cast<long long>(expected)
         << " bytes (2n^2 + 3n + 1 doubles)";
    return text.str();
}
