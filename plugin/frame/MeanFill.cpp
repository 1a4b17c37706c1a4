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
      m_fromSamples(FloatHoldsType(in.GetRasterBand(bandNumber - 1)->GetRasterDataType()))
{
}

void BandMeanFill::ReadFlags(int x, int y, int w, int rows, const float* samples, long long rowStride)
{
    m_flags.resize(static_cast<std::size_t>(w) * rows);
    if (!m_fromSamples) {
        m_mask.Read(x, y, w, rows, m_flags.data());
        return;
    }
    if (rowStride == w) {
        m_mask.ReadWith(x, y, w, rows, samples, static_cast<long long>(w) * rows, m_flags.data());
        return;
    }
    for (int r = 0; r < rows; ++r)
        m_mask.ReadWith(x, y + r, w, 1, samples + r * rowStride, w, m_flags.data() + static_cast<long long>(r) * w);
}

void BandMeanFill::Survey(int x, int y, int w, int rows, const float* samples, long long rowStride, uint8_t* masked)
{
    ReadFlags(x, y, w, rows, samples, rowStride);
    long long valid = 0;
    for (int r = 0; r < rows; ++r) {
        const float* s = samples + r * rowStride;
        const uint8_t* f = m_flags.data() + static_cast<long long>(r) * w;
        // Four partial sums, so that the additions do not wait on each other; doubles hold the
        // sums of integer bands exactly.
        double part[4] = {0, 0, 0, 0};
        long long count = 0;
        for (int p = 0; p < w; ++p) {
            part[p & 3] += f[p] ? static_cast<double>(s[p]) : 0.0;
            count += f[p];
        }
        m_sum += (part[0] + part[1]) + (part[2] + part[3]);
        valid += count;
        if (masked)
            for (int p = 0; p < w; ++p)
                masked[static_cast<long long>(r) * w + p] = static_cast<uint8_t>(1 - f[p]);
    }
    m_valid += valid;
    m_masked += static_cast<long long>(w) * rows - valid;
}

void BandMeanFill::Fill(int x, int y, int w, int rows, float* samples, long long rowStride)
{
    ReadFlags(x, y, w, rows, samples, rowStride);
    const float value = Value();
    for (int r = 0; r < rows; ++r) {
        float* s = samples + r * rowStride;
        const uint8_t* f = m_flags.data() + static_cast<long long>(r) * w;
        for (int p = 0; p < w; ++p)
            s[p] = f[p] ? s[p] : value;
    }
}
