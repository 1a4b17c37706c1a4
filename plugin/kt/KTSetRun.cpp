#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"
#include "frame/stTasseledCapInfo.h"
#include "kt/KTKernel.h"
#include "kt/KTMasked.h"
#include "kt/KTTransformFunc.h"

#include <gdal_priv.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

using namespace OrvDataSource;

namespace {

const char* kContext = "KTTransformFunc";

bool Finite(const std::vector<double>& values)
{
    for (double v : values)
        if (!std::isfinite(v))
            return false;
    return true;
}

// The record's parts agree with each other: one name per component, a weight per component and
// column, a constant per component or none, a scale and an offset per column or none.
bool WellFormed(const stTasseledCapInfo& info)
{
    const std::size_t components = info.vecNames.size(), columns = info.vecBands.size();
    const bool unscaled = info.vecScale.empty() && info.vecOffset.empty();
    return components > 0 && columns > 0 && info.vecCoefficients.size() == components * columns &&
           (info.vecConstants.empty() || info.vecConstants.size() == components) &&
           (unscaled || (info.vecScale.size() == columns && info.vecOffset.size() == columns)) &&
           Finite(info.vecCoefficients) && Finite(info.vecConstants) && Finite(info.vecScale) &&
           Finite(info.vecOffset);
}

bool BandsWithin(const std::vector<int>& bands, int bandCount)
{
    for (int b : bands)
        if (b < 1 || b > bandCount)
            return false;
    return true;
}

// The set in the kernel's precision: weights and constants rounded once from the record's doubles.
struct SinglePrecisionSet {
    explicit SinglePrecisionSet(const stTasseledCapInfo& info)
        : weights(info.vecCoefficients.begin(), info.vecCoefficients.end()),
          constants(info.vecConstants.begin(), info.vecConstants.end()),
          columns(static_cast<int>(info.vecBands.size()))
    {
    }
    KTComponent Component(int k) const
    {
        return {weights.data() + static_cast<std::size_t>(k) * columns, columns,
                constants.empty() ? 0.0f : constants[k], constants.empty() ? KTConstant::None : KTConstant::Added};
    }
    std::vector<float> weights, constants;
    int columns;
};

// value × scale + offset for every sample of column j, in double and rounded once, as GDAL unscales.
void Unscale(const stTasseledCapInfo& info, int width, float* block)
{
    for (std::size_t j = 0; j < info.vecScale.size(); ++j) {
        float* row = block + j * width;
        const double scale = info.vecScale[j], offset = info.vecOffset[j];
        for (int p = 0; p < width; ++p)
            row[p] = ToFloatSample(row[p] * scale + offset);
    }
}

void NameBands(RasterDataset& out, const std::vector<QString>& names)
{
    if (GDALDataset* gds = out.GetGDALDataset())
        for (std::size_t k = 0; k < names.size(); ++k)
            gds->GetRasterBand(static_cast<int>(k) + 1)->SetDescription(names[k].toUtf8().constData());
}

} // namespace

bool KTTransformFunc::RunSet(const stTasseledCapInfo& info, bool& created)
{
    created = false;
    if (!WellFormed(info))
        return Fail(kContext, "The coefficient set is malformed!");
    RasterPtr in = OpenInputRaster(info.trans.strInputFile);
    if (!in) {
        SetErrorInfo(2, QString());
        return Fail(kContext, "Failed to open the input file!");
    }
    if (!BandsWithin(info.vecBands, in->GetBandCount()))
        return Fail(kContext, "The input has fewer bands than the coefficient set uses!");
    const PixelWindow win = WholeWindow(in->GetRasterXSize(), in->GetRasterYSize());
    const int components = static_cast<int>(info.vecNames.size());
    const double outputBytes = 4.0 * components * win.width * static_cast<double>(win.height);
    if (!EnoughFreeSpace(info.trans.strOutputFile, outputBytes))
        return Fail(kContext, "Low Disk Space!");
    RasterPtr out = CreateOutput(info.trans.strOutputFile, win.width, win.height, components, PDT_Float32,
                                 info.trans.strFormat);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");
    created = true;
    CopySpatialReference(*in, *out);
    CopyGeoTransform(*in, *out);

    const SinglePrecisionSet set(info);
    const long long blockSize = static_cast<long long>(set.columns) * win.width;
    auto block = NewZeroedSamples<float>(blockSize);
    auto row = NewZeroedSamples<float>(win.width);
    if (!block || !row)
        return Fail(kContext, "Apply memory Fail!");
    NameBands(*out, info.vecNames);
    const std::unique_ptr<KTRowHook> masked = NewMaskedRows(info.mask);
    masked->Begin(*in, info.vecBands, win);

    const KTRowReader reader(*in, info.vecBands, win);
    const ProgressSpan progress(Context(), Tr(kContext, "Tasseled Cap Transform is running..."), 0, 100,
                                ProgressMath::Single);
    for (int r = 0; r < win.height; ++r) {
        progress.Report(r, win.height);
        reader.Read(r, block.get());
        masked->Row(r, block.get()); // on the stored values, before any unscaling
        Unscale(info, win.width, block.get());
        for (int k = 0; k < components; ++k) {
            if (!ComputeComponent(set.Component(k), block.get(), win.width, row.get(), Context()))
                return LeaveCancelled();
            masked->Component(row.get(), win.width);
            const int band = k + 1;
            out->WriteRaster(0, r, win.width, 1, row.get(), win.width, 1, PDT_Float32, 1, &band, 0, 0, 0);
        }
    }
    masked->End(*out, components);
    CopyRpcIfPresent(*in, *out);
    return true;
}
