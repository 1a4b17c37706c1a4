#include "pca/PCAEngine.h"
#include "frame/TavTransformFunc.h"

#include <QCoreApplication>

CPCAEngine::CPCAEngine(const QString& input, TavTransformFunc* algo) : m_strInput(input), m_pAlgo(algo) {}
CPCAEngine::~CPCAEngine() = default;

int CPCAEngine::ForwardDriver(const stForwardPCAInfo&)
{
    m_pAlgo->SetErrorInfo(1, QCoreApplication::translate("RSPCA", "Principal component rotation is not in this build."));
    return 14;
}

int CPCAEngine::InverseDriver(const stInversePCAInfo&)
{
    m_pAlgo->SetErrorInfo(1, QCoreApplication::translate("RSPCA", "Principal component rotation is not in this build."));
    return 14;
}
