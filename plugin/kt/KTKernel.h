#pragma once
// What every Tasseled Cap run shares: reading a row of the used bands as floats, and the pixel
// kernel that combines them into one component.
#include "frame/RunContext.h"
#include "frame/RunSteps.h"

#include "OrvDataSource/RasterDataset.h"

// How a component's constant enters.
enum class KTConstant {
    None,              // the weighted sum alone
    Added,             // the sum plus the constant
    AddedUnlessAllZero // the sum plus the constant, but 0 where every used band is 0
};

// One component's weights over the n used bands, in single precision.
struct KTComponent {
    const float* weights;
    int n;
    float constant;
    KTConstant mode;
};

// One row of every used band into the block as floats, each band converted from its own type,
// straight into the block. A failed read is used as it comes back. Bands of one type come in one
// read, band after band, which is the block's layout.
class KTRowReader {
public:
    KTRowReader(OrvDataSource::RasterDataset& in, BandNumbers bands, const PixelWindow& win);
    void Read(int r, float* block) const;

private:
    void ReadInto(const BandNumbers& bands, int r, float* into) const;

    OrvDataSource::RasterDataset& m_in;
    BandNumbers m_bands;
    PixelWindow m_win;
    bool m_oneType;
};

// One component over one row of the block (band j's row at j × width), in single precision,
// products in band order and the constant last. Polls the cancel flag before every pixel; false,
// with the row incomplete, when the run is to stop.
bool ComputeComponent(const KTComponent& c, const float* block, int width, float* out, const RunContext& ctx);
