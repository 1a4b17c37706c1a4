#include "frame/MeanFill.h"
#include "frame/RasterAccess.h"

using namespace OrvDataSource;

#include "frame/TransWorker.h"

stMaskInfo MaskInfoOfBand(const stMaskInfo& info, int bandNumber)
{
    stMaskInfo one = info;
    // A list gives band n its n-th value; MeanFillProblem has made sure there is one.
    if (info.vecSrcNoData.size() > 1)
        one.vecSrcNoData = {info.vecSrcNoData[static_cast<std::size_t>(bandNumber) - 1]};
    return one;
}

std::vector<std::unique_ptr<BandMeanFill>> MeanFills(RasterDataset& in, const std::vector<int>& bands,
                                                     const stMaskInfo& info)
{
    std::vector<std::unique_ptr<BandMeanFill>> fills;
    for (int b : bands)
        fills.push_back(std::make_unique<BandMeanFill>(in, b, info));
    return fills;
}

QString MeanFillProblem(const stMaskInfo& info, const std::vector<int>& bands, const char* context)
{
    const std::size_t given = info.vecSrcNoData.size();
    if (given <= 1)
        return {};
    for (int b : bands)
        if (b < 1 || static_cast<std::size_t>(b) > given)
            return Tr(context, "The no-data values name %1 bands; band %2 has none. Give one value, or one per band!")
                .arg(given)
                .arg(b);
    return {};
}

bool NoteFilled(const BandMeanFill& fill, long long pixels, std::vector<stBandFill>& filled)
{
    if (!fill.HasValidPixel())
        return false;
    if (fill.MaskedCount() > 0)
        filled.push_back({fill.Band(), fill.MaskedCount(), pixels, static_cast<double>(fill.Value())});
    return true;
}

QString AllMaskedText(int bandNumber, const char* context)
{
    return Tr(context, "Every pixel of band %1 is masked: there is no valid value to fill it with!").arg(bandNumber);
}

namespace {

bool FloatHoldsType(int type)
{
    return type == PDT_Byte || type == PDT_UInt16 || type == PDT_Int16 || type == PDT_Float32;
}

} // namespace

BandMeanFill::BandMeanFill(RasterDataset& in, int bandNumber, const stMaskInfo& info)
    : m_band(bandNumber), m_mask(in, BandNumbers{bandNumber}, MaskInfoOfBand(info, bandNumber)),
      m_floatExact(FloatHoldsType(in.GetRasterBand(bandNumber - 1)->GetRasterDataType()))
{
}

void BandMeanFill::Fill(int x, int y, int w, int rows, float* samples, long long rowStride)
{
    ReadFlags(x, y, w, rows, samples, rowStride, m_floatExact);
    const float value = Value();
    for (int r = 0; r < rows; ++r) {
        float* s = samples + r * rowStride;
        const uint8_t* f = m_flags.data() + static_cast<long long>(r) * w;
        for (int p = 0; p < w; ++p)
            s[p] = f[p] ? s[p] : value;
    }
}
