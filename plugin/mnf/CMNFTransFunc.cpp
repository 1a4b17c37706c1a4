#include "mnf/CMNFTransFunc.h"
#include "frame/RasterAccess.h"
#include "mnf/MNFRun.h"

#include <algorithm>

namespace {

// False when the window is not inside the image or a band is not in it.
bool SelectWindowAndBands(OrvDataSource::RasterDataset& in, const int* bands, int bandCount, int firstCol, int lastCol,
                          int firstRow, int lastRow, MNFSelection& selection)
{
    const int width = in.GetRasterXSize(), height = in.GetRasterYSize();
    selection.window = firstCol == kWholeImage ? WholeWindow(width, height)
                                               : InclusiveWindow(firstCol, lastCol, firstRow, lastRow);
    const PixelWindow& w = selection.window;
    if (w.x0 < 0 || w.y0 < 0 || w.width < 1 || w.height < 1 || w.x0 > width - w.width || w.y0 > height - w.height)
        return false;
    BandIndices indices = bandCount > 0 && bands ? BandIndices(bands, bands + bandCount) : AllBandIndices(in.GetBandCount());
    for (int b : indices)
        if (b < 0 || b >= in.GetBandCount())
            return false;
    selection.bands = ToBandNumbers(indices);
    return true;
}

} // namespace

bool CMNFTransFunc::OpenSelected(const QString& input, const int* bands, int bandCount, int firstCol, int lastCol,
                                 int firstRow, int lastRow, RasterPtr& in, MNFSelection& selection)
{
    // A back-to-front window is refused before the input is opened.
    const bool backwards = firstCol != kWholeImage && (firstCol > lastCol || firstRow > lastRow);
    if (!backwards) {
        in = OpenInputRaster(input);
        if (!in)
            return Fail(kMNFContext, "Failed to open the input file!");
        if (SelectWindowAndBands(*in, bands, bandCount, firstCol, lastCol, firstRow, lastRow, selection))
            return true;
    }
    m_strError.clear();
    return false;
}

int RowsPerBlock(long long budget, int width, long long bytesPerPixel, int height)
{
    return static_cast<int>(std::clamp<long long>(RowsWithin(budget, width, bytesPerPixel), 1, height));
}
