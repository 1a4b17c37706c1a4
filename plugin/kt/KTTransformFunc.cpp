#include "kt/KTTransformFunc.h"
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"
#include "kt/KTCoefficients.h"
#include "kt/KTKernel.h"

#include <gdal_priv.h>

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

    const KTRowReader reader(*in, UsedBands(sensor, set, bandCount), win);
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
            const KTComponent component{set.matrix + k * set.weights, set.weights,
                                        set.hasConstant ? set.constants[k] : 0.0f,
                                        set.hasConstant ? KTConstant::AddedUnlessAllZero : KTConstant::None};
            if (!ComputeComponent(component, block.get(), win.width, row.get(), Context()))
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
