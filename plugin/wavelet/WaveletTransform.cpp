#include "wavelet/WaveletTransform.h"
#include "frame/RasterAccess.h"
#include "wavelet/WaveletKernel.h"

#include "OrvDataSource/DatasetFactory.h"

#include <QFile>
#include <QFileInfo>
#include <gdal_priv.h>

#include <algorithm>
#include <cstddef>
#include <vector>

using namespace OrvDataSource;

namespace {

const char* kContext = "WaveletTransformFunc";
// The forward run's open failure is translated under the Fourier label; the translation files
// our hosts ship carry it there, so it stays.
const char* kForwardOpenContext = "TavTransFFTFunc";
const char* kForwardMessage = "Forward Wavelet Transform is running...";
const char* kInverseMessage = "Inverse Wavelet Transform is running...";

bool SameFile(const QString& a, const QString& b)
{
    return QFileInfo(a).absoluteFilePath() == QFileInfo(b).absoluteFilePath();
}

// Carries the input's RPC coefficients (".rpb") over to the output's name.
void CopySideFile(const QString& input, const QString& output)
{
    const QString from = CutBeforeLastDot(input) + QStringLiteral(".rpb");
    const QString to = CutBeforeLastDot(output) + QStringLiteral(".rpb");
    if (!QFile::exists(from) || SameFile(from, to))
        return;
    if (QFile::exists(to))
        QFile::remove(to);
    QFile::copy(from, to);
}

struct Window {
    int x0 = 0, y0 = 0, w = 0, h = 0;
};

// A negative first column or row selects the whole image whatever the other bounds say. A window
// reaching outside the image fails, like a band list that does not fit, without a text.
bool ResolveWindow(int width, int height, int firstCol, int lastCol, int firstRow, int lastRow, Window& win)
{
    if (firstCol < 0 || firstRow < 0) {
        win = {0, 0, width, height};
        return width > 0 && height > 0;
    }
    if (lastCol < firstCol || lastRow < firstRow || lastCol >= width || lastRow >= height)
        return false;
    win = {firstCol, firstRow, lastCol - firstCol + 1, lastRow - firstRow + 1};
    return true;
}

// 0-based indices; none listed means every band in order.
bool ResolveBands(const int* bands, int count, int bandCount, std::vector<int>& list)
{
    list.clear();
    if (!bands || count <= 0) {
        for (int b = 0; b < bandCount; ++b)
            list.push_back(b);
        return bandCount > 0;
    }
    if (count > bandCount)
        return false;
    list.assign(bands, bands + count);
    return std::all_of(list.begin(), list.end(), [&](int b) { return b >= 0 && b < bandCount; });
}

// Origin moved to the window's corner; the coordinate system only when the input is not
// referenced by ground control points, whose system is a different one.
void PlaceOnInput(RasterDataset* in, RasterDataset* out, const Window& win)
{
    double gt[6];
    in->GetGeoTransform(gt);
    const double ox = gt[0] + gt[1] * win.x0 + gt[2] * win.y0;
    const double oy = gt[3] + gt[4] * win.x0 + gt[5] * win.y0;
    gt[0] = ox;
    gt[3] = oy;
    out->SetGeoTransform(gt);
    const auto srs = in->GetSpatialReference();
    if (srs && in->GetGDALDataset()->GetGCPCount() == 0)
        out->SetSpatialReference(srs);
}

// Bytes the output may take, sized on the whole input in band 0's type.
double RequiredBytes(RasterDataset* in, std::size_t bands)
{
    return static_cast<double>(bands) * BytesPerSample(in->GetRasterBand(0)->GetRasterDataType()) *
           static_cast<double>(in->GetRasterYSize()) * static_cast<double>(in->GetRasterXSize());
}

TypedBuffer<float> NewFloats(std::size_t count)
{
    return TypedBuffer<float>(static_cast<float*>(NewTypedBuffer(PDT_Float32, static_cast<long long>(count))));
}

// The temporary raster between the synthesis passes. Tiles keep both the column chunks written
// into it and the row chunks read back from it to whole blocks; bands apart keep one band's
// blocks together. The file goes with the handle, on success and on failure alike.
class TempRaster {
public:
    explicit TempRaster(QString path) : m_path(std::move(path)) {}
    ~TempRaster()
    {
        if (!m_created)
            return;
        m_ds = nullptr;
        QFile::remove(m_path);
    }
    TempRaster(const TempRaster&) = delete;
    TempRaster& operator=(const TempRaster&) = delete;

    RasterDataset* Create(int width, int height, int bands)
    {
        const char* options[] = {"TILED=YES", "INTERLEAVE=BAND", nullptr};
        m_ds = DatasetFactory::Instance()->CreateRasterDataset(m_path, width, height, bands, PDT_Float32,
                                                               QStringLiteral("GTiff"),
                                                               const_cast<char**>(options));
        m_created = m_ds != nullptr;
        return m_ds.get();
    }

private:
    QString m_path;
    OrvUtility::_ptr_t<RasterDataset> m_ds;
    bool m_created = false;
};

// Columns (or rows) per chunk: two Float32 lines, in and out, of the longer side plus the border.
std::size_t LinesPerChunk(long long budget, const Window& win)
{
    const long long perLine = (4 + 4) * (static_cast<long long>(std::max(win.w, win.h)) + 4);
    return static_cast<std::size_t>(std::max(1LL, budget / perLine));
}

// Columns c0 .. c0 + n - 1 of a w-wide image, packed n wide.
void GatherColumns(const float* image, std::size_t w, std::size_t h, std::size_t c0, std::size_t n, float* packed)
{
    for (std::size_t r = 0; r < h; ++r)
        std::copy_n(image + r * w + c0, n, packed + r * n);
}

} // namespace


bool WaveletTransformFunc::Forward(const QString& input, const QString& output, const QString& format,
                                   const int* bands, int bandCount, int firstCol, int lastCol, int firstRow,
                                   int lastRow)
{
    CopySideFile(input, output);
    RasterPtr in = OpenInputRaster(input);
    if (!in)
        return Fail(kForwardOpenContext, "Failed to open the input file!");
    Window win;
    std::vector<int> list;
    if (!ResolveWindow(in->GetRasterXSize(), in->GetRasterYSize(), firstCol, lastCol, firstRow, lastRow, win) ||
        !ResolveBands(bands, bandCount, in->GetBandCount(), list))
        return false;
    if (!EnoughFreeSpace(output, RequiredBytes(in.get(), list.size())))
        return Fail(kContext, "Low Disk Space!");
    RasterPtr out = CreateOutput(output, win.w, win.h, static_cast<int>(list.size()), PDT_Float32, format);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");
    PlaceOnInput(in.get(), out.get(), win);

    const std::size_t w = win.w, h = win.h;
    TypedBuffer<float> image = NewFloats(w * h);
    TypedBuffer<float> result = NewFloats(w * h);
    TypedBuffer<float> scratch =
        NewFloats(std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::ColumnScratchSize(w)));
    if (!image || !result || !scratch)
        return Fail(kContext, "Apply memory Fail!");

    const QString message = Tr(kContext, kForwardMessage);
    const double units = 2.0 * list.size();
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (i > 0 && Cancelled())
            return LeaveCancelled();
        // GDAL converts the band's own type to single precision as it reads.
        const int inBand = list[i] + 1;
        if (!in->ReadRasterInto(win.x0, win.y0, win.w, win.h, image.get(), win.w, win.h, PDT_Float32, 1, &inBand,
                                0, 0, 0))
            return Fail(kContext, "Convert Data Fail!");
        Progress(100.0 * (2 * i) / units, message);
        WaveletKernel::ForwardRows(image.get(), image.get(), w, h, scratch.get());
        if (Cancelled())
            return LeaveCancelled();
        Progress(100.0 * (2 * i + 1) / units, message);
        WaveletKernel::ForwardColumns(image.get(), result.get(), w, h, scratch.get());
        const int outBand = static_cast<int>(i) + 1;
        out->WriteRaster(0, 0, win.w, win.h, result.get(), win.w, win.h, PDT_Float32, 1, &outBand, 0, 0, 0);
    }
    return true;
}

bool WaveletTransformFunc::Inverse(const QString& input, const QString& output, const QString& format,
                                   int pixelType, const int* bands, int bandCount, int firstCol, int lastCol,
                                   int firstRow, int lastRow, long long memoryBudget)
{
    CopySideFile(input, output);
    // The first three reports carry the forward wording on purpose, as hosts have always shown them.
    const QString forwardMessage = Tr(kContext, kForwardMessage);
    Progress(1, forwardMessage);
    RasterPtr in = OpenInputRaster(input);
    if (!in)
        return Fail(kContext, "Failed to open the input file!");
    Window win;
    std::vector<int> list;
    if (!ResolveWindow(in->GetRasterXSize(), in->GetRasterYSize(), firstCol, lastCol, firstRow, lastRow, win) ||
        !ResolveBands(bands, bandCount, in->GetBandCount(), list))
        return false;
    if (in->GetRasterBand(0)->GetRasterDataType() != PDT_Float32)
        return Fail(kContext, "Datatype Error!");
    if (!EnoughFreeSpace(output, RequiredBytes(in.get(), list.size())))
        return Fail(kContext, "Low Disk Space!");
    Progress(2, forwardMessage);

    const int outBands = static_cast<int>(list.size());
    const QString tempPath = WaveletTempPath(output);
    // A temporary named like the input would overwrite it.
    if (pixelType < PDT_Byte || pixelType > PDT_Float64 || SameFile(tempPath, input))
        return Fail(kContext, "OutFile Creat Fail!");
    RasterPtr out = CreateOutput(output, win.w, win.h, outBands, pixelType, format);
    if (!out)
        return Fail(kContext, "OutFile Creat Fail!");
    TempRaster tempFile(tempPath);
    RasterDataset* temp = tempFile.Create(win.w, win.h, outBands);
    if (!temp)
        return Fail(kContext, "OutFile Creat Fail!");
    Progress(3, forwardMessage);
    PlaceOnInput(in.get(), out.get(), win);
    PlaceOnInput(in.get(), temp, win);

    const QString message = Tr(kContext, kInverseMessage);
    Progress(5, message);
    const std::size_t w = win.w, h = win.h;
    const std::size_t lines = LinesPerChunk(memoryBudget, win);
    const std::size_t columnsPerChunk = std::min(lines, w);
    const std::size_t rowsPerChunk = std::min(lines, h);
    // The band is read whole once; a chunk of columns is gathered out of it (unless one chunk is
    // the whole band) and synthesised into `columns`; `chunk` then carries the rows back.
    TypedBuffer<float> band = NewFloats(w * h);
    TypedBuffer<float> chunk = NewFloats(std::max(columnsPerChunk < w ? columnsPerChunk * h : 0, rowsPerChunk * w));
    TypedBuffer<float> columns = NewFloats(columnsPerChunk * h);
    TypedBuffer<float> scratch = NewFloats(
        std::max(WaveletKernel::LineScratchSize(w), WaveletKernel::ColumnScratchSize(columnsPerChunk)));
    if (!band || !chunk || !columns || !scratch)
        return Fail(kContext, "Apply memory Fail!");

    const double units = 2.0 * list.size();
    for (std::size_t i = 0; i < list.size(); ++i) {
        const int inBand = list[i] + 1;
        const int outBand = static_cast<int>(i) + 1;
        if (i > 0) {
            if (Cancelled())
                return LeaveCancelled();
            Progress(5.0 + 95.0 * (2 * i) / units, message);
        }
        in->ReadRasterInto(win.x0, win.y0, win.w, win.h, band.get(), win.w, win.h, PDT_Float32, 1, &inBand, 0, 0, 0);
        for (std::size_t c0 = 0; c0 < w; c0 += columnsPerChunk) {
            const std::size_t nc = std::min(columnsPerChunk, w - c0);
            const float* source = band.get();
            if (nc < w) {
                GatherColumns(band.get(), w, h, c0, nc, chunk.get());
                source = chunk.get();
            }
            WaveletKernel::InverseColumns(source, columns.get(), nc, h, scratch.get());
            temp->WriteRaster(static_cast<int>(c0), 0, static_cast<int>(nc), win.h, columns.get(),
                              static_cast<int>(nc), win.h, PDT_Float32, 1, &outBand, 0, 0, 0);
        }
        if (Cancelled())
            return LeaveCancelled();
        Progress(5.0 + 95.0 * (2 * i + 1) / units, message);
        // Whole rows back from the temporary; GDAL rounds and clamps into the output's type.
        for (std::size_t r0 = 0; r0 < h; r0 += rowsPerChunk) {
            const int nr = static_cast<int>(std::min(rowsPerChunk, h - r0));
            temp->ReadRasterInto(0, static_cast<int>(r0), win.w, nr, chunk.get(), win.w, nr, PDT_Float32, 1,
                                 &outBand, 0, 0, 0);
            WaveletKernel::InverseRows(chunk.get(), chunk.get(), w, nr, scratch.get());
            out->WriteRaster(0, static_cast<int>(r0), win.w, nr, chunk.get(), win.w, nr, PDT_Float32, 1, &outBand,
                             0, 0, 0);
        }
    }
    return true;
}
