#pragma once
#include "frame/PCARecords.h"

class RunContext;

// Principal component engine; lives in the algorithm object between runs.
class CPCAEngine {
public:
    CPCAEngine(const QString& input, const RunContext* context);
    ~CPCAEngine();
    // 0 success; 1 input or statistics file, 2 output, 6 cancelled, 14 no routine for the types.
    int ForwardDriver(const stForwardPCAInfo& info);
    int InverseDriver(const stInversePCAInfo& info);

private:
    QString m_strInput;
    const RunContext* m_pContext;
};
