// Execute's branches for the masked records; the unmasked records never come here.
#include "TavTransformFunc.h"
#include "frame/MaskRecords.h"
#include "kt/KTMasked.h"
#include "pca/PCAEngine.h"

#include <QCoreApplication>

bool TavTransformFunc::ExecuteMaskedTransInfo()
{
    stMaskedTransInfo masked = boost::any_cast<stMaskedTransInfo>(m_params);
    Report(0);
    bool ok = false;
    const int type = masked.info.nTransType;
    // The Fourier and wavelet inverses take their input as it is: a spectrum has no masked pixels.
    const stMaskInfo* fill = masked.info.bForward ? &masked.mask : nullptr;
    if (type == 4)
        ok = RunMaskedTasseledCap(masked);
    else if (type == 1)
        ok = RunMnf(masked.info, &masked.mask);
    else if (type == 2)
        ok = RunFourier(masked.info, fill, &masked.vecFilled);
    else if (type == 3)
        ok = RunWavelet(masked.info, fill, &masked.vecFilled);
    else
        RefuseMasked();
    if (type == 2 || type == 3) {
        // What was filled goes back to the host, which warns of it.
        masked.vecFilled = ok ? masked.vecFilled : std::vector<stBandFill>{};
        m_params = masked;
    }
    if (CancelRequested() && !ok)
        m_nErrorCode = -1010;
    Report(100);
    return ok;
}

// Transforms whose masked runs are not built yet say so rather than ignore the masks.
bool TavTransformFunc::RefuseMasked()
{
    m_nErrorCode = 1;
    m_strErrorText = QCoreApplication::translate(
        "TavTransformFunc", "No-data masking is not available for this transform yet; run it without masks.");
    return false;
}

bool TavTransformFunc::ExecuteMaskedInversePCA()
{
    const stMaskedInversePCAInfo masked = boost::any_cast<stMaskedInversePCAInfo>(m_params);
    const stInversePCAInfo& info = masked.info;
    // A fresh engine, as the unmasked inverse makes; the one it replaces stays until this object goes.
    if (m_pPCAEngine)
        m_replacedEngines.emplace_back(m_pPCAEngine);
    m_pPCAEngine = new CPCAEngine(info.strInputFile, &m_context);
    return FinishPca(m_pPCAEngine->MaskedInverseDriver(masked), {info.strOutputFile});
}

bool TavTransformFunc::ExecuteMaskedForwardPCA()
{
    const stMaskedForwardPCAInfo masked = boost::any_cast<stMaskedForwardPCAInfo>(m_params);
    const stForwardPCAInfo& info = masked.info;
    if (!m_pPCAEngine)
        m_pPCAEngine = new CPCAEngine(info.strInputFile, &m_context);
    return FinishPca(m_pPCAEngine->MaskedForwardDriver(masked), {info.strOutputFile, info.strStatFile});
}

bool TavTransformFunc::RunMaskedTasseledCap(const stMaskedTransInfo& masked)
{
    const stTransInfo& info = masked.info;
    KTMaskedTransformFunc worker(m_context);
    const bool ok = worker.Run(info.strInputFile, info.strOutputFile, info.strFormat, info.nSensorType, masked.mask);
    return FinishTasseledCap(ok, worker.ErrorText(), info.strOutputFile);
}

// The masked forward MNF run, which hands back how many pixels its statistics were taken over.
bool TavTransformFunc::ExecuteMaskedForwardMNF()
{
    stMaskedForwardMNFInfo masked = boost::any_cast<stMaskedForwardMNFInfo>(m_params);
    Report(0);
    long long pixels[2] = {0, 0};
    const bool ok = masked.info.bForward ? RunMnf(masked.info, &masked.mask, pixels) : RunMnf(masked.info, &masked.mask);
    if (ok) {
        masked.nValidPixels = pixels[0];
        masked.nTotalPixels = pixels[1];
        m_params = masked;
    }
    if (CancelRequested() && !ok)
        m_nErrorCode = -1010;
    Report(100);
    return ok;
}
