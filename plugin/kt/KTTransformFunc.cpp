#include "kt/KTTransformFunc.h"
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"
#include "kt/KTCoefficients.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cstring>

using namespace OrvDataSource;

namespace {

const char* kContext = "KTTransformFunc";

// 1-based input bands read for the used positions: a 7-band TM scene gives band 7 in place of band 6.
BandNumbers UsedBands(int sensor, const KTSensorSet& set, int bandCount)
{
    BandNumbers bands = AllBandNumbers(set.weights);
    if (sensor == 0 && bandCount == 7)
        bands[5] = 7;
    return bands;
}

// No-data of input band i onto output band i (0 when the input has none), the coordinate system,
// and the window's origin half a pixel in, also for a window at 0: kept on purpose, users'
// products are registered to it.
void PlaceOutput(RasterDataset& in, RasterDataset& out, int components, const PixelWindow& win)
{
    for (int i = 0; i < components; ++i) {
        double noData = 0;
        if (!in.GetRasterBand(i)->GetNoDataValue(&noData))
            noData = 0;
        out.GetRasterBand(i)->SetNoDataValue(noData);
    }
    CopySpatialReference(in, out);
    double gt[6];
    in.GetGeoTransform(gt);
    ShiftOrigin(gt, win.x0 + 0.5, win.y0 + 0.5);
    out.SetGeoTransform(gt);
}

void NameBands(RasterDataset& out, const KTSensorSet& set)
{
    if (GDALDataset* gds = out.GetGDALDataset())
        for (int k = 0; k < set.components; ++k)
            gds->GetRasterBand(k + 1)->SetDescription(set.names[k]);
}

// One row of every used band into the block as floats, each band converted from its own type,
// straight into the block. A failed read is used as it comes back. Bands of one type come in one
// read, band after band, which is the block's layout.
class RowReader {
public:
    RowReader(RasterDataset& in, BandNumbers bands, const PixelWindow& win)
        : m_in(in), m_bands(std::move(bands)), m_win(win), m_oneType(true)
    {
        const int first = in.GetRasterBand(m_bands[0] - 1)->GetRasterDataType();
        for (int b : m_bands)
            m_oneType = m_oneType && in.GetRasterBand(b - 1)->GetRasterDataType() == first;
    }
    void Read(int r, float* block) const
    {
        if (m_oneType)
            ReadInto(m_bands, r, block);
        else
            for (std::size_t j = 0; j < m_bands.size(); ++j)
                ReadInto({m_bands[j]}, r, block + j * m_win.width);
    }

private:
    void ReadInto(const BandNumbers& bands, int r, float* into) const
    {
        const long long count = static_cast<long long>(bands.size()) * m_win.width;
        auto pixels = m_in.ReadRaster(m_win.x0, m_win.y0 + r, m_win.width, 1, m_win.width, 1, bands);
        ConvertToFloats(pixels->GetData(), count, pixels->GetDataType(), into);
    }

    RasterDataset& m_in;
    BandNumbers m_bands;
    PixelWindow m_win;
    bool m_oneType;
};

// One component over one row, in single precision, products in band order and the constant last.
void ComputeComponent(const KTSensorSet& set, int k, const float* block, int width, float* out,
                      const RunContext* ctx, bool& cancelled);

} // namespace

bool KTTransformFunc::Run(const QString& input, const QString& output, const QString& format, int sensor,
                          int xStart, int xEnd, int yStart, int yEnd)
{
    return RunWith(input, output, format, sensor, xStart, xEnd, yStart, yEnd, nullptr);
}

bool KTTransformFunc::RunWith(const QString& input, const QString& output, const QString& format, int sensor,
                              int xStart, int xEnd, int yStart, int yEnd, KTRowHook* hook)
{
    if (xStart != kWholeImage && (xEnd < xStart || yEnd < yStart)) {
        SetErrorInfo(1, QString());
        m_strError.clear();
        return false;
    }
    RasterPtr in = OpenInputRaster(input);
    if (!in) {
        SetErrorInfo(2, QString());
        return Fail(kContext, "Failed to open the input file!");
    }
    const PixelWindow win = xStart == kWholeImage ? WholeWindow(in->GetRasterXSize(), in->GetRasterYSize())
                                                  : InclusiveWindow(xStart, xEnd, yStart, yEnd);
    const KTSensorSet& set = KTSensor(sensor);
    const int bandCount = in->GetBandCount();
    if (bandCount < set.requiredBands)
        return Fail(kContext, "Input file is inconsistent with the sensor type! ");
    if (!EnoughFreeSpace(output, OutputBytesEstimate(*in, set.components)))
        return Fail(kContext, "Low Disk Space!");
    RasterPtr out = CreateOutput(output, win.width, win.height, set.components, PDT_Float32, format);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");
    PlaceOutput(*in, *out, set.components, win);

    const long long blockSize = static_cast<long long>(set.requiredBands) * win.width;
    auto block = NewSamples<float>(blockSize);
    auto row = NewSamples<float>(win.width);
    ClearTypedBuffer(block.get(), PDT_Float32, blockSize);
    ClearTypedBuffer(row.get(), PDT_Float32, win.width);
    if (!block || !row)
        return Fail(kContext, "Apply memory Fail!");
    NameBands(*out, set);

    const RowReader reader(*in, UsedBands(sensor, set, bandCount), win);
    if (hook)
        hook->Begin(*in, UsedBands(sensor, set, bandCount), win);
    const ProgressSpan progress(Context(), Tr(kContext, "Tasseled Cap Transform is running..."), 0, 100,
                                ProgressMath::Single);
    for (int r = 0; r < win.height; ++r) {
        progress.Report(r, win.height);
        reader.Read(r, block.get());
        if (hook)
            hook->Row(r, block.get());
        for (int k = 0; k < set.components; ++k) {
            bool cancelled = false;
            ComputeComponent(set, k, block.get(), win.width, row.get(), m_ctx, cancelled);
            if (cancelled)
                return LeaveCancelled();
            if (hook)
                hook->Component(row.get(), win.width);
            const int band = k + 1;
            out->WriteRaster(0, r, win.width, 1, row.get(), win.width, 1, PDT_Float32, 1, &band, 0, 0, 0);
        }
    }
    block.reset();
    row.reset();
    if (hook)
        hook->End(*out, set.components);
    CopyRpcIfPresent(*in, *out);
    return true;
}

namespace {

using Vec4 = float __attribute__((vector_size(16)));
using Mask4 = int __attribute__((vector_size(16)));

inline Vec4 Load4(const float* p)
{
    Vec4 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Pixels [p, p + n) of one component, n a multiple of 4: four pixels per vector, each summed in
// band order exactly as the one-pixel path does.
template <int N, bool kZeroRule>
inline void ComputeVectors(const float* const* band, const float* w, float c, int p, int n, float* out)
{
    for (int q = p; q < p + n; q += 4) {
        Vec4 sum = {0.0f, 0.0f, 0.0f, 0.0f};
        Mask4 nonZero = {0, 0, 0, 0};
        for (int j = 0; j < N; ++j) {
            const Vec4 x = Load4(band[j] + q);
            sum += w[j] * x;
            if constexpr (kZeroRule)
                nonZero |= x != 0.0f;
        }
        if constexpr (kZeroRule)
            sum = reinterpret_cast<Vec4>(reinterpret_cast<Mask4>(sum + c) & nonZero);
        std::memcpy(out + q, &sum, sizeof sum);
    }
}

template <int N, bool kZeroRule>
inline void ComputeOne(const float* const* band, const float* w, float c, int p, float* out)
{
    float sum = 0.0f;
    bool allZero = true;
    for (int j = 0; j < N; ++j) {
        sum += w[j] * band[j][p];
        allZero = allZero && band[j][p] == 0.0f;
    }
    out[p] = kZeroRule ? (allZero ? 0.0f : sum + c) : sum;
}

template <int N, bool kZeroRule>
void ComputeFixed(const KTSensorSet& set, int k, const float* block, int width, float* out,
                  const RunContext* ctx, bool& cancelled)
{
    float w[N];
    const float* band[N];
    for (int j = 0; j < N; ++j) {
        w[j] = set.matrix[k * N + j];
        band[j] = block + static_cast<long long>(j) * width;
    }
    const float c = kZeroRule ? set.constants[k] : 0.0f;
    // Every pixel's poll still comes before that pixel is computed; polling a short run of
    // pixels first lets the arithmetic of the run vectorise.
    constexpr int kRun = 16;
    for (int p0 = 0; p0 < width; p0 += kRun) {
        const int end = std::min(width, p0 + kRun);
        for (int p = p0; p < end; ++p)
            if (ctx->CancelRequested()) {
                cancelled = true;
                return;
            }
        const int vectored = (end - p0) & ~3;
        ComputeVectors<N, kZeroRule>(band, w, c, p0, vectored, out);
        for (int p = p0 + vectored; p < end; ++p)
            ComputeOne<N, kZeroRule>(band, w, c, p, out);
    }
}

void ComputeComponent(const KTSensorSet& set, int k, const float* block, int width, float* out,
                      const RunContext* ctx, bool& cancelled)
{
    if (set.weights == 4)
        ComputeFixed<4, false>(set, k, block, width, out, ctx, cancelled);
    else if (set.hasConstant)
        ComputeFixed<6, true>(set, k, block, width, out, ctx, cancelled);
    else
        ComputeFixed<6, false>(set, k, block, width, out, ctx, cancelled);
}

} // namespace
