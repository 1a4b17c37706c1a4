#include "frame/RunSteps.h"
#include "frame/RasterAccess.h"

#include "OrvDataSource/DatasetFactory.h"

#include <numeric>

using namespace OrvDataSource;

double ProgressSpan::PercentAt(long long done, long long total) const
{
    switch (m_math) {
    case ProgressMath::Single: {
        const float share = static_cast<float>(done) / static_cast<float>(total) * static_cast<float>(m_to - m_from);
        return static_cast<float>(static_cast<float>(m_from) + share);
    }
    case ProgressMath::Integer:
        return static_cast<double>(static_cast<long long>(m_from) +
                                   static_cast<long long>(m_to - m_from) * done / total);
    case ProgressMath::Double:
    default:
        return m_from + (m_to - m_from) * static_cast<double>(done) / static_cast<double>(total);
    }
}

long long RowsWithin(long long samples, long long width, long long bands)
{
    if (width <= 0 || bands <= 0 || samples <= 0)
        return 0;
    return samples / width / bands;
}

BandIndices AllBandIndices(int count)
{
    BandIndices bands(count > 0 ? count : 0);
    std::iota(bands.begin(), bands.end(), 0);
    return bands;
}

BandNumbers AllBandNumbers(int count) { return ToBandNumbers(AllBandIndices(count)); }

BandNumbers ToBandNumbers(const BandIndices& indices)
{
    BandNumbers bands(indices);
    for (int& b : bands)
        ++b;
    return bands;
}

bool ReadBandRows(RasterDataset& in, int x0, int cols, int y, int rows, const BandNumbers& bands, int type,
                  void* buffer, SampleOrder order)
{
    const int n = static_cast<int>(bands.size());
    const long long bytes = BytesPerSample(type);
    PixelMajor space{bytes, cols * bytes, static_cast<long long>(rows) * cols * bytes};
    if (order == SampleOrder::PixelMajor)
        space = PixelMajorSpacing(n, cols, static_cast<int>(bytes));
    else if (order == SampleOrder::BandsByLine)
        space = {bytes, n * cols * bytes, cols * bytes};
    return in.ReadRasterInto(x0, y, cols, rows, buffer, cols, rows, static_cast<PixelDataType>(type), n, bands.data(),
                             space.pixel, space.line, space.band);
}

void ShiftOrigin(double gt[6], double dx, double dy)
{
    const double ox = gt[0] + dx * gt[1] + dy * gt[2];
    const double oy = gt[3] + dx * gt[4] + dy * gt[5];
    gt[0] = ox;
    gt[3] = oy;
}

void CopyGeoTransform(RasterDataset& in, RasterDataset& out)
{
    double gt[6];
    in.GetGeoTransform(gt);
    out.SetGeoTransform(gt);
}

void CopySpatialReference(RasterDataset& in, RasterDataset& out)
{
    if (auto srs = in.GetSpatialReference())
        out.SetSpatialReference(srs);
}

void CopyPlacementIfPresent(RasterDataset& in, RasterDataset& out)
{
    if (!in.HasGeoTransform())
        return;
    CopyGeoTransform(in, out);
    CopySpatialReference(in, out);
}

void CopyRpcIfPresent(RasterDataset& in, RasterDataset& out)
{
    if (in.GetMetadata("RPC"))
        DatasetFactory::CopyRPCFile(&in, &out);
}

double OutputBytesEstimate(RasterDataset& in, long long bands)
{
    return static_cast<double>(bands) * BytesPerSample(in.GetRasterBand(0)->GetRasterDataType()) *
           static_cast<double>(in.GetRasterYSize()) * static_cast<double>(in.GetRasterXSize());
}
