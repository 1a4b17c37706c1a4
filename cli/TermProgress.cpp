#include "TermProgress.h"

#include <algorithm>
#include <cmath>

void TermProgress::Update(double percent, const QString& message)
{
    if (!message.isEmpty() && message != m_message) {
        m_message = message;
        std::fprintf(m_out, "%s%s\n", m_lastTick >= 0 && m_lastTick < 40 ? "\n" : "", message.toLocal8Bit().constData());
        if (m_lastTick >= 0 && m_lastTick < 40)
            m_lastTick = -1; // restart the bar on a fresh line
    }
    const int tick = std::clamp(static_cast<int>(std::floor(percent / 2.5 + 1e-9)), 0, 40);
    // The opening 0 waits for the transform's message, so the bar starts under it.
    if (tick == 0 && m_lastTick < 0 && m_message.isEmpty())
        return;
    if (tick <= m_lastTick)
        return;
    for (int t = m_lastTick + 1; t <= tick; ++t) {
        if (t % 4 == 0)
            std::fprintf(m_out, "%d", t / 4 * 10);
        else
            std::fputc('.', m_out);
    }
    if (tick == 40)
        std::fputs(" - done.\n", m_out);
    m_lastTick = tick;
    std::fflush(m_out);
}

void TermProgress::Finish()
{
    if (m_lastTick >= 0 && m_lastTick < 40) {
        std::fputc('\n', m_out);
        m_lastTick = 40;
    }
}
