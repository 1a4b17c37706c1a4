#include "kt/KTTransformFunc.h"
#include "frame/RasterAccess.h"
#include "frame/TavTransformFunc.h"
#include "kt/KTCoefficients.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cstring>

using namespace OrvDataSource;

namespace {

const char* kContext = "KTTransformFunc";

// 1-based input band read for used position j: a 7-band TM scene gives band 7 in place of band 6.
int InputBandFor(int sensor, int position, int bandCount)
{
    if (sensor == 0 && position == 5 && bandCount == 7)
        return 7;
    return position + 1;
}

// One component over one row, in single precision, products in band order and the constant last.
void ComputeComponent(const KTSensorSet& set, int k, const float* block, int width, float* out,
                      const TavTransformFunc* algo, bool& cancelled);

} // namespace

bool KTTransformFunc::Run(const QString& input, const QString& output, const QString& format, int sensor,
                          int xStart, int xEnd, int yStart, int yEnd)
{
    if (xStart != -1 && (xEnd < xStart || yEnd < yStart)) {
        SetErrorInfo(1, QString());
        m_strError.clear();
        return false;
    }
    RasterPtr in = OpenInputRaster(input);
    if (!in) {
        SetErrorInfo(2, QString());
        return Fail(kContext, "Failed to open the input file!");
    }
    const int xSize = in->GetRasterXSize();
    const int ySize = in->GetRasterYSize();
    if (xStart == -1) {
        xStart = 0;
        xEnd = xSize - 1;
        yStart = 0;
        yEnd = ySize - 1;
    }
    const int width = xEnd - xStart + 1;
    const int height = yEnd - yStart + 1;

    const KTSensorSet& set = KTSensor(sensor);
    const int bandCount = in->GetBandCount();
    if (bandCount < set.requiredBands)
        return Fail(kContext, "Input file is inconsistent with the sensor type! ");

    const double required = static_cast<double>(BytesPerSample(in->GetRasterBand(0)->GetRasterDataType())) *
                            set.components * ySize * xSize;
    if (!EnoughFreeSpace(output, required))
        return Fail(kContext, "Low Disk Space!");

    RasterPtr out = CreateOutput(output, width, height, set.components, PDT_Float32, format);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");

    for (int i = 0; i < set.components; ++i) {
        double noData = 0;
        if (!in->GetRasterBand(i)->GetNoDataValue(&noData))
            noData = 0;
        out->GetRasterBand(i)->SetNoDataValue(noData);
    }
    CopySpatialReference(in.get(), out.get());
    double gt[6];
    in->GetGeoTransform(gt);
    // Half a pixel in from the window's corner, also for a window at 0: kept on purpose, users'
    // products are registered to it.
    const double ox = gt[0] + (xStart + 0.5) * gt[1] + (yStart + 0.5) * gt[2];
    const double oy = gt[3] + (xStart + 0.5) * gt[4] + (yStart + 0.5) * gt[5];
    gt[0] = ox;
    gt[3] = oy;
    out->SetGeoTransform(gt);

    TypedBuffer<float> block(static_cast<float*>(NewTypedBuffer(PDT_Float32, static_cast<long long>(set.requiredBands) * width)));
    TypedBuffer<float> row(static_cast<float*>(NewTypedBuffer(PDT_Float32, width)));
    ClearTypedBuffer(block.get(), PDT_Float32, static_cast<long long>(set.requiredBands) * width);
    ClearTypedBuffer(row.get(), PDT_Float32, width);
    if (!block || !row)
        return Fail(kContext, "Apply memory Fail!");

    if (GDALDataset* gds = out->GetGDALDataset())
        for (int k = 0; k < set.components; ++k)
            gds->GetRasterBand(k + 1)->SetDescription(set.names[k]);

    std::vector<int> usedBands;
    for (int j = 0; j < set.weights; ++j)
        usedBands.push_back(InputBandFor(sensor, j, bandCount));
    const long long blockSize = static_cast<long long>(set.weights) * width;
    for (int r = 0; r < height; ++r) {
        Progress(static_cast<float>(r) / static_cast<float>(height) * 100.0f,
                 Tr(kContext, "Tasseled Cap Transform is running..."));
        // All used bands of the row in one read: the buffer comes back band after band, which is
        // the block's layout, so one conversion fills the block.
        auto pixels = in->ReadRaster(xStart, yStart + r, width, 1, width, 1, usedBands);
        TypedBuffer<float> converted(ToFloatArray(pixels->GetData(), blockSize, pixels->GetDataType()));
        if (converted)
            block = std::move(converted);
        for (int k = 0; k < set.components; ++k) {
            bool cancelled = false;
            ComputeComponent(set, k, block.get(), width, row.get(), m_pAlgo, cancelled);
            if (cancelled)
                return LeaveCancelled();
            const int band = k + 1;
            out->WriteRaster(0, r, width, 1, row.get(), width, 1, PDT_Float32, 1, &band, 0, 0, 0);
        }
    }
    block.reset();
    row.reset();
    CopyRpcIfPresent(in.get(), out.get());
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
                  const TavTransformFunc* algo, bool& cancelled)
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
            if (algo->CancelRequested()) {
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
                      const TavTransformFunc* algo, bool& cancelled)
{
    if (set.weights == 4)
        ComputeFixed<4, false>(set, k, block, width, out, algo, cancelled);
    else if (set.hasConstant)
        ComputeFixed<6, true>(set, k, block, width, out, algo, cancelled);
    else
        ComputeFixed<6, false>(set, k, block, width, out, algo, cancelled);
}

} // namespace
