#include "pca/PCAEngine.h"
#include "frame/RunContext.h"

#include <QCoreApplication>

CPCAEngine::CPCAEngine(const QString& input, const RunContext* context) : m_strInput(input), m_pContext(context) {}
CPCAEngine::~CPCAEngine() = default;

int CPCAEngine::ForwardDriver(const stForwardPCAInfo&)
{
    m_pContext->SetErrorInfo(1, QCoreApplication::translate("RSPCA", "Principal component rotation is not in this build."));
    return 14;
}

int CPCAEngine::InverseDriver(const stInversePCAInfo&)
{
    m_pContext->SetErrorInfo(1, QCoreApplication::translate("RSPCA", "Principal component rotation is not in this build."));
    return 14;
}
