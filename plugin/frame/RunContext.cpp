#include "frame/RunContext.h"
#include "frame/Progress.h"

void RunContext::Report(double percent, const QString& message) const
{
    FireProgress(m_algo.GetProgressSignal(), percent, message, &m_algo);
}

void RunContext::SetPollHook(std::function<void()> hook)
{
    m_pollHook = std::move(hook);
    int32_t expected = m_pollHook ? 0 : kHooked;
    m_cancel.compare_exchange_strong(expected, m_pollHook ? kHooked : 0, std::memory_order_relaxed);
}

bool RunContext::HookedPoll() const
{
    if (m_pollHook)
        m_pollHook();
    return m_cancel.load(std::memory_order_relaxed) == 1;
}
