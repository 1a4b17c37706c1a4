#include "frame/Mask.h"
#include "frame/RasterAccess.h"
#include "frame/TransWorker.h"

#include <cmath>
#include <limits>

#include <QLocale>

using namespace OrvDataSource;

RunMask::RunMask(RasterDataset& in, const BandNumbers& bands, const stMaskInfo& info)
    : m_in(in), m_bands(bands), m_useMasks(info.bUseMasks)
{
    // One value stands for every band, as in GDAL's tools.
    if (!info.vecSrcNoData.empty())
        for (std::size_t j = 0; j < m_bands.size(); ++j)
            m_srcNoData.push_back(info.vecSrcNoData[std::min(j, info.vecSrcNoData.size() - 1)]);
    for (std::size_t j = 0; j < m_bands.size(); ++j) {
        const auto band = m_in.GetRasterBand(m_bands[j] - 1);
        const double* given = m_srcNoData.empty() ? nullptr : &m_srcNoData[j];
        m_active = m_active || band->MayHaveMaskedPixels(given, m_useMasks);
        m_rules.push_back(band->GetValidityRule(given, m_useMasks));
    }
}

long long RunMask::Read(int x, int y, int w, int h, uint8_t* valid) const
{
    const long long count = static_cast<long long>(w) * h;
    std::fill(valid, valid + count, uint8_t{1});
    if (!m_active)
        return 0;
    std::vector<uint8_t> band(static_cast<std::size_t>(count));
    for (std::size_t j = 0; j < m_bands.size(); ++j) {
        m_in.GetRasterBand(m_bands[j] - 1)->ReadValidity(x, y, w, h, band.data(),
                                                        m_srcNoData.empty() ? nullptr : &m_srcNoData[j], m_useMasks);
        for (long long i = 0; i < count; ++i)
            valid[i] &= band[i];
    }
    long long validCount = 0;
    for (long long i = 0; i < count; ++i)
        validCount += valid[i];
    return count - validCount;
}

double OutputNoData(const stMaskInfo& info, int pixelType)
{
    const double v = info.dDstNoData;
    double lo = 0, hi = 0;
    bool floating = false;
    DispatchPixelType(pixelType, [&](auto t) {
        using T = typename decltype(t)::type;
        floating = std::is_floating_point_v<T>;
        lo = std::numeric_limits<T>::lowest();
        hi = std::numeric_limits<T>::max();
    });
    if (floating)
        return std::isnan(v) || (lo <= v && v <= hi) ? v : std::numeric_limits<double>::quiet_NaN();
    return !std::isnan(v) && lo <= v && v <= hi ? std::trunc(v) : lo;
}

void DeclareMaskedOutput(RasterDataset& out, int bands, double dst, const char* item, const QString& text)
{
    for (int k = 0; k < bands; ++k)
        out.GetRasterBand(k)->SetNoDataValue(dst);
    if (item)
        out.SetMetadataItem(item, text.toUtf8().constData());
}

QString StatisticsOverText(long long used, long long total)
{
    const QLocale english(QLocale::English);
    return Tr("TavTransformFunc", "statistics over %1 of %2 pixels")
        .arg(english.toString(used))
        .arg(english.toString(total));
}
