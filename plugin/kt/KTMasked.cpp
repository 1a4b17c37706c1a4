#include "kt/KTMasked.h"
#include "frame/Mask.h"

#include <memory>
#include <vector>

using namespace OrvDataSource;

namespace {

// Source values given one per input band follow the bands the run reads, which need not be the
// first ones (band 7 in place of band 6, a published set's band choice).
stMaskInfo PerUsedBand(const stMaskInfo& info, int bandCount, const BandNumbers& bands)
{
    stMaskInfo used = info;
    if (info.vecSrcNoData.size() > 1 && static_cast<int>(info.vecSrcNoData.size()) == bandCount) {
        used.vecSrcNoData.clear();
        for (int b : bands)
            used.vecSrcNoData.push_back(info.vecSrcNoData[b - 1]);
    }
    return used;
}

class MaskedRows : public KTRowHook {
public:
    explicit MaskedRows(const stMaskInfo& info) : m_info(info), m_value(static_cast<float>(OutputNoData(info, PDT_Float32))) {}

    void Begin(RasterDataset& in, const BandNumbers& bands, const PixelWindow& win) override
    {
        m_used = PerUsedBand(m_info, in.GetBandCount(), bands);
        m_mask = std::make_unique<RunMask>(in, bands, m_used);
        m_win = win;
        // The row's floats hold these types exactly, so their value rules need no second read.
        m_fromRow = true;
        for (int b : bands) {
            const int t = in.GetRasterBand(b - 1)->GetRasterDataType();
            m_fromRow = m_fromRow && (t == PDT_Byte || t == PDT_UInt16 || t == PDT_Int16 || t == PDT_Float32);
        }
        m_valid.assign(static_cast<std::size_t>(win.width), 1);
    }
    void Row(int r, const float* block) override
    {
        if (!m_mask->Active())
            return;
        if (m_fromRow) {
            m_mask->ReadWith(m_win.x0, m_win.y0 + r, m_win.width, 1, block, m_win.width, m_valid.data());
            long long valid = 0;
            for (uint8_t v : m_valid)
                valid += v;
            m_rowMasked = m_win.width - valid;
        } else {
            m_rowMasked = m_mask->Read(m_win.x0, m_win.y0 + r, m_win.width, 1, m_valid.data());
        }
        m_masked += m_rowMasked;
    }
    void Component(float* row, int width) override
    {
        // A select rather than a branch: the compiler turns it into vector blends.
        if (m_rowMasked)
            for (int p = 0; p < width; ++p)
                row[p] = m_valid[p] ? row[p] : m_value;
    }
    // Declared only where something was masked: otherwise the output stays the unmasked run's.
    void End(RasterDataset& out, int components) override
    {
        if (m_masked == 0)
            return;
        for (int k = 0; k < components; ++k)
            out.GetRasterBand(k)->SetNoDataValue(m_value);
    }

private:
    const stMaskInfo& m_info;
    stMaskInfo m_used;
    float m_value;
    std::unique_ptr<RunMask> m_mask;
    PixelWindow m_win;
    std::vector<uint8_t> m_valid;
    long long m_rowMasked = 0;
    bool m_fromRow = false;
    long long m_masked = 0;
};

} // namespace

bool KTMaskedTransformFunc::Run(const QString& input, const QString& output, const QString& format, int sensor,
                                const stMaskInfo& mask)
{
    MaskedRows hook(mask);
    return RunWith(input, output, format, sensor, kWholeImage, kWholeImage, kWholeImage, kWholeImage, &hook);
}

std::unique_ptr<KTRowHook> NewMaskedRows(const stMaskInfo& mask) { return std::make_unique<MaskedRows>(mask); }
