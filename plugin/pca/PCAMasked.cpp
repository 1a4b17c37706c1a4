#include "pca/PCAMasked.h"
#include "pca/PCAEngine.h"
#include "frame/MaskRecords.h"
#include "frame/TransWorker.h"

#include <cstring>

using namespace OrvDataSource;

bool PcaMask::Prepare(RasterDataset& in, int n, int slots, long long maxPixels)
{
    if (m_in != &in || !m_mask) {
        m_mask = std::make_unique<RunMask>(in, AllBandNumbers(n), m_info);
        m_in = &in;
    }
    m_total = static_cast<long long>(in.GetRasterXSize()) * in.GetRasterYSize();
    try {
        m_flags.assign(static_cast<std::size_t>(slots), std::vector<uint8_t>(static_cast<std::size_t>(maxPixels), 1));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

long long PcaMask::KeepValid(double* values, long long first, long long count, int n, int slot)
{
    m_statistics = true;
    const uint8_t* valid = m_flags[slot].data() + first;
    // The usual piece has no masked pixel: one scan, nothing moved.
    if (!std::memchr(valid, 0, static_cast<std::size_t>(count))) {
        m_validPixels += count;
        return count;
    }
    long long kept = 0;
    for (long long p = 0; p < count; ++p)
        if (valid[p]) {
            if (kept != p)
                std::memmove(values + kept * n, values + p * n, sizeof(double) * n);
            ++kept;
        }
    m_validPixels += kept;
    return kept;
}

void PcaMask::Declare(RasterDataset& out, int m) const
{
    if (m_filled.load(std::memory_order_relaxed) == 0)
        return;
    if (m_statistics)
        DeclareMaskedOutput(out, m, m_dst, "PCA_STATISTICS", StatisticsOverText(m_validPixels, m_total));
    else
        DeclareMaskedOutput(out, m, m_dst);
}

void HandBackMaskedEigenValues(const RunContext& ctx, const std::vector<double>& values,
                               const std::vector<double>& contribution, const std::vector<double>& cumulative,
                               long long used, long long total)
{
    const boost::any params = ctx.Params();
    const auto* held = boost::any_cast<stMaskedForwardPCAInfo>(&params);
    if (!held)
        return;
    stMaskedForwardPCAInfo record = *held;
    record.info.vecEigenValues = values;
    record.info.vecContribution = contribution;
    record.info.vecCumulative = cumulative;
    record.nValidPixels = used;
    record.nTotalPixels = total;
    ctx.SetParams(record);
}

int CPCAEngine::MaskedInverseDriver(const stMaskedInversePCAInfo& masked)
{
    const stInversePCAInfo& info = masked.info;
    bool active = false;
    if (const RasterPtr in = TransWorker::OpenInputRaster(m_strInput))
        active = RunMask(*in, AllBandNumbers(in->GetBandCount()), masked.mask).Active();
    if (!active)
        return InverseDriver(info);
    PcaMask mask(masked.mask, info.nOutDataType >= 0 && info.nOutDataType <= 5 ? info.nOutDataType + 1 : 7);
    m_pMask = &mask;
    const int status = InverseDriver(info);
    m_pMask = nullptr;
    return status;
}

int CPCAEngine::MaskedForwardDriver(const stMaskedForwardPCAInfo& masked)
{
    const stForwardPCAInfo& info = masked.info;
    bool active = false;
    if (const RasterPtr in = TransWorker::OpenInputRaster(m_strInput)) {
        const int n = info.nComponents != 0 ? info.nComponents : in->GetBandCount();
        active = n >= 1 && n <= in->GetBandCount() && RunMask(*in, AllBandNumbers(n), masked.mask).Active();
    }
    // Nothing to mask: the unmasked run, bit for bit.
    if (!active)
        return ForwardDriver(info);
    PcaMask mask(masked.mask, info.nOutDataType + 1);
    mask.StartStatistics();
    m_pMask = &mask;
    const int status = ForwardDriver(info);
    m_pMask = nullptr;
    return status;
}
