#include "frame/TavTransformFunc.h"
#include "frame/PCARecords.h"
#include "frame/Progress.h"
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

void TavTransformFunc::Report(double percent, const QString& message)
{
    FireProgress(m_pProgressSignal, percent, message, this);
}

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
    return ExecuteTransInfo();
}

bool TavTransformFunc::ExecuteForwardPCA()
{
    const stForwardPCAInfo info = boost::any_cast<stForwardPCAInfo>(m_params);
    if (!m_pPCAEngine)
        m_pPCAEngine = new CPCAEngine(info.strInputFile, this);
    const int status = m_pPCAEngine->ForwardDriver(info);
    Report(100, QString());
    if (CancelRequested()) {
        m_nErrorCode = -1010;
        RemoveFile(info.strOutputFile);
        RemoveFile(info.strStatFile);
        return false;
    }
    return status == 0;
}

bool TavTransformFunc::ExecuteInversePCA()
{
    const stInversePCAInfo info = boost::any_cast<stInversePCAInfo>(m_params);
    // A fresh engine every time; the one it replaces is not destroyed here but kept until this object goes.
    if (m_pPCAEngine)
        m_replacedEngines.emplace_back(m_pPCAEngine);
    m_pPCAEngine = new CPCAEngine(info.strInputFile, this);
    const int status = m_pPCAEngine->InverseDriver(info);
    Report(100, QString());
    if (CancelRequested()) {
        m_nErrorCode = -1010;
        RemoveFile(info.strOutputFile);
        return false;
    }
    return status == 0;
}

bool TavTransformFunc::ExecuteTransInfo()
{
    // Another record type escapes as boost::bad_any_cast, to the host.
    const stTransInfo info = boost::any_cast<stTransInfo>(m_params);
    Report(0, QString());
    bool ok = false;
    switch (info.nTransType) {
    case 1: {
        CMNFTransFunc worker(this);
        if (info.bForward) {
            ok = worker.Forward(info.strInputFile, info.strOutputFile, info.strStatFile, info.strFormat, nullptr, 0,
                                -1, -1, -1, -1, 16);
            if (CancelRequested())
                RemoveFile(info.strStatFile);
        } else {
            ok = worker.Inverse(info.strInputFile, info.strOutputFile, info.strStatFile, info.strFormat, nullptr, 0,
                                -1, -1, -1, -1, 16);
        }
        if (!ok) {
            m_nErrorCode = 1;
            m_strErrorText = worker.ErrorText();
            RemoveFile(info.strOutputFile);
            RemoveFile(info.strStatFile);
        }
        if (CancelRequested())
            RemoveFile(info.strOutputFile);
        break;
    }
    case 2: {
        TavTransFFTFuncNew worker(this);
        ok = info.bForward ? worker.ForwardRun(info.strInputFile, info.strOutputFile, info.strFormat, info.vecBands)
                           : worker.InverseRun(info.strInputFile, info.strOutputFile, info.nOutDataType, info.strFormat);
        if (!ok) {
            m_nErrorCode = 1;
            m_strErrorText = worker.ErrorText();
            RemoveFile(info.strOutputFile);
        }
        break;
    }
    case 3: {
        WaveletTransformFunc worker(this);
        ok = info.bForward ? worker.Forward(info.strInputFile, info.strOutputFile, info.strFormat, nullptr, 0, -1, -1, -1, -1)
                           : worker.Inverse(info.strInputFile, info.strOutputFile, info.strFormat, 6, nullptr, 0, -1, -1,
                                            -1, -1, 100000000);
        if (!ok) {
            if (CancelRequested())
                RemoveFile(info.strOutputFile);
            else
                m_nErrorCode = 1;
            m_strErrorText = worker.ErrorText();
            RemoveFile(info.strOutputFile);
        }
        RemoveFile(WaveletTempPath(info.strOutputFile));
        break;
    }
    case 4: {
        KTTransformFunc worker(this);
        ok = worker.Run(info.strInputFile, info.strOutputFile, info.strFormat, info.nSensorType, -1, -1, -1, -1);
        if (!ok) {
            // The worker may have set 1, 2 or -1010 already; a code left by an earlier run stays too.
            if (m_nErrorCode == 0)
                m_nErrorCode = 1;
            m_strErrorText = worker.ErrorText();
            if (CancelRequested())
                RemoveFile(info.strOutputFile);
        }
        break;
    }
    default:
        break;
    }
    if (CancelRequested() && !ok)
        m_nErrorCode = -1010;
    Report(100, QString());
    return ok;
}

OrvAlgo::IOrvAlgo* GetAlgoObj() { return new TavTransformFunc(); }
