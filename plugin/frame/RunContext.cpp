#include "frame/RunContext.h"
#include "frame/Progress.h"

void RunContext::Report(double percent, const QString& message) const
{
    FireProgress(m_algo.GetProgressSignal(), percent, message, &m_algo);
}
