#include "TavTransformFunc.h"
#include "frame/MaskRecords.h"
#include "frame/PCARecords.h"
#include "frame/RunSteps.h"
#include "frame/stTasseledCapInfo.h"
#include "frame/stTransInfo.h"

#include "fft/FftTransform.h"
#include "kt/KTTransformFunc.h"
#include "mnf/CMNFTransFunc.h"
#include "pca/PCAEngine.h"
#include "wavelet/WaveletTransform.h"

#include <QCoreApplication>
#include <QFile>

namespace {

const char* kContext = "TavTransformFunc";

// The arguments Execute always adds: no band list, the whole image, and the runs' budgets.
const int* const kNoBandList = nullptr;
constexpr int kNoBandCount = 0;
constexpr int kMnfBlockBudget = 16;
constexpr int kWaveletInverseType = 6; // Float32
constexpr long long kWaveletInverseBudget = 100000000;
constexpr int kCancelled = -1010;

void RemoveFile(const QString& path)
{
    if (!path.isEmpty())
        QFile::remove(path);
}

} // namespace

TavTransformFunc::TavTransformFunc()
{
    m_strName = QCoreApplication::translate(kContext, "Forward FFT");
}

TavTransformFunc::~TavTransformFunc()
{
    delete m_pPCAEngine;
    m_pPCAEngine = nullptr;
}

void TavTransformFunc::Terminate() { m_nCancel.store(1, std::memory_order_relaxed); }

bool TavTransformFunc::Execute()
{
    if (m_params.empty()) {
        SetErrorInfo(100, QCoreApplication::translate(kContext, "Type is Not stTransInfo!"));
        return false;
    }
    if (m_params.type() == typeid(stForwardPCAInfo))
        return ExecuteForwardPCA();
    if (m_params.type() == typeid(stInversePCAInfo))
        return ExecuteInversePCA();
    if (m_params.type() == typeid(stTasseledCapInfo))
        return ExecuteTasseledCapSet();
    if (m_params.type() == typeid(stMaskedTransInfo))
        return ExecuteMaskedTransInfo();
    if (m_params.type() == typeid(stMaskedForwardPCAInfo))
        return ExecuteMaskedForwardPCA();
    if (m_params.type() == typeid(stMaskedInversePCAInfo))
        return ExecuteMaskedInversePCA();
    if (m_params.type() == typeid(stMaskedForwardMNFInfo))
        return ExecuteMaskedForwardMNF();
    return ExecuteTransInfo();
}

bool TavTransformFunc::ExecuteForwardPCA()
{
    const stForwardPCAInfo info = boost::any_cast<stForwardPCAInfo>(m_params);
    if (!m_pPCAEngine)
        m_pPCAEngine = new CPCAEngine(info.strInputFile, &m_context);
    return FinishPca(m_pPCAEngine->ForwardDriver(info), {info.strOutputFile, info.strStatFile});
}

bool TavTransformFunc::ExecuteInversePCA()
{
    const stInversePCAInfo info = boost::any_cast<stInversePCAInfo>(m_params);
    // A fresh engine every time; the one it replaces is not destroyed here but kept until this object goes.
    if (m_pPCAEngine)
        m_replacedEngines.emplace_back(m_pPCAEngine);
    m_pPCAEngine = new CPCAEngine(info.strInputFile, &m_context);
    // The inverse only reads its statistics file: a cancel removes the output alone.
    return FinishPca(m_pPCAEngine->InverseDriver(info), {info.strOutputFile});
}

bool TavTransformFunc::FinishPca(int status, std::initializer_list<QString> removedOnCancel)
{
    Report(100);
    if (!CancelRequested())
        return status == 0;
    m_nErrorCode = kCancelled;
    for (const QString& path : removedOnCancel)
        RemoveFile(path);
    return false;
}

bool TavTransformFunc::ExecuteTransInfo()
{
    // Another record type escapes as boost::bad_any_cast, to the host.
    const stTransInfo info = boost::any_cast<stTransInfo>(m_params);
    Report(0);
    bool ok = false;
    switch (info.nTransType) {
    case 1: ok = RunMnf(info); break;
    case 2: ok = RunFourier(info); break;
    case 3: ok = RunWavelet(info); break;
    case 4: ok = RunTasseledCap(info); break;
    default: break;
    }
    if (CancelRequested() && !ok)
        m_nErrorCode = kCancelled;
    Report(100);
    return ok;
}

bool TavTransformFunc::RunMnf(const stTransInfo& info, const stMaskInfo* mask, long long* pixels)
{
    CMNFTransFunc worker(m_context);
    worker.UseMask(mask);
    bool ok;
    if (info.bForward) {
        ok = worker.Forward(info.strInputFile, info.strOutputFile, info.strStatFile, info.strFormat, kNoBandList,
                            kNoBandCount, kWholeImage, kWholeImage, kWholeImage, kWholeImage, kMnfBlockBudget);
        if (CancelRequested())
            RemoveFile(info.strStatFile);
        if (pixels) {
            pixels[0] = worker.ValidPixels();
            pixels[1] = worker.TotalPixels();
        }
    } else {
        ok = worker.Inverse(info.strInputFile, info.strOutputFile, info.strStatFile, info.strFormat, kNoBandList,
                            kNoBandCount, kWholeImage, kWholeImage, kWholeImage, kWholeImage, kMnfBlockBudget);
    }
    if (!ok) {
        m_nErrorCode = 1;
        m_strErrorText = worker.ErrorText();
        RemoveFile(info.strOutputFile);
        RemoveFile(info.strStatFile);
    }
    if (CancelRequested())
        RemoveFile(info.strOutputFile);
    return ok;
}

bool TavTransformFunc::RunFourier(const stTransInfo& info, const stMaskInfo* mask, std::vector<stBandFill>* filled)
{
    TavTransFFTFuncNew worker(m_context);
    if (mask)
        worker.SetMask(*mask);
    const bool ok = info.bForward
                        ? worker.ForwardRun(info.strInputFile, info.strOutputFile, info.strFormat, info.vecBands)
                        : worker.InverseRun(info.strInputFile, info.strOutputFile, info.nOutDataType, info.strFormat);
    if (!ok) {
        m_nErrorCode = 1;
        m_strErrorText = worker.ErrorText();
        RemoveFile(info.strOutputFile);
    }
    if (filled)
        *filled = worker.Filled();
    return ok;
}

bool TavTransformFunc::RunWavelet(const stTransInfo& info, const stMaskInfo* mask, std::vector<stBandFill>* filled)
{
    WaveletTransformFunc worker(m_context);
    if (mask)
        worker.SetMask(*mask);
    const bool ok =
        info.bForward
            ? worker.Forward(info.strInputFile, info.strOutputFile, info.strFormat, kNoBandList, kNoBandCount,
                             kWholeImage, kWholeImage, kWholeImage, kWholeImage)
            : worker.Inverse(info.strInputFile, info.strOutputFile, info.strFormat, kWaveletInverseType, kNoBandList,
                             kNoBandCount, kWholeImage, kWholeImage, kWholeImage, kWholeImage, kWaveletInverseBudget);
    if (!ok) {
        if (!CancelRequested())
            m_nErrorCode = 1;
        m_strErrorText = worker.ErrorText();
        RemoveFile(info.strOutputFile);
    }
    RemoveFile(WaveletTempPath(info.strOutputFile));
    if (filled)
        *filled = worker.Filled();
    return ok;
}

bool TavTransformFunc::RunTasseledCap(const stTransInfo& info)
{
    KTTransformFunc worker(m_context);
    const bool ok = worker.Run(info.strInputFile, info.strOutputFile, info.strFormat, info.nSensorType, kWholeImage,
                               kWholeImage, kWholeImage, kWholeImage);
    return FinishTasseledCap(ok, worker.ErrorText(), info.strOutputFile);
}

bool TavTransformFunc::FinishTasseledCap(bool ok, const QString& workerText, const QString& output)
{
    if (!ok) {
        // The worker may have set 1, 2 or -1010 already; a code left by an earlier run stays too.
        if (m_nErrorCode == 0)
            m_nErrorCode = 1;
        m_strErrorText = workerText;
        if (CancelRequested())
            RemoveFile(output);
    }
    return ok;
}

// A set the host brings: a fresh error state, and what a failed or cancelled run created is removed.
bool TavTransformFunc::ExecuteTasseledCapSet()
{
    const stTasseledCapInfo info = boost::any_cast<stTasseledCapInfo>(m_params);
    m_nErrorCode = 0;
    m_strErrorText.clear();
    Report(0);
    KTTransformFunc worker(m_context);
    bool created = false;
    const bool ok = worker.RunSet(info, created);
    if (!ok) {
        if (m_nErrorCode == 0)
            m_nErrorCode = 1;
        if (CancelRequested())
            m_nErrorCode = kCancelled;
        m_strErrorText = worker.ErrorText();
        if (created)
            RemoveFile(info.trans.strOutputFile);
    }
    Report(100);
    return ok;
}

OrvAlgo::IOrvAlgo* GetAlgoObj() { return new TavTransformFunc(); }
