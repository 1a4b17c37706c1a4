#include "fft/FftLanes.h"

#include <algorithm>
#include <atomic>
#include <system_error>

namespace {

std::atomic<int> g_lanes{0};

} // namespace

void SetFftLanes(int lanes)
{
    g_lanes = lanes < 0 ? 0 : lanes;
}

int FftLaneCount()
{
    const int lanes = g_lanes;
    return lanes > 0 ? lanes : FftLanes::DefaultCount();
}

int FftLanes::DefaultCount()
{
    const unsigned cores = std::thread::hardware_concurrency();
    return static_cast<int>(std::clamp(cores, 1u, 4u));
}

FftLanes::FftLanes(FftWorkspace& mainWorkspace, int lanes) : m_main(mainWorkspace)
{
    const int helpers = std::max(lanes, 1) - 1;
    // Sized once: the helpers hold references into it.
    m_workspaces.resize(static_cast<std::size_t>(helpers));
    m_helpers.reserve(static_cast<std::size_t>(helpers));
    for (int i = 0; i < helpers; ++i) {
        try {
            m_helpers.emplace_back(&FftLanes::HelperLoop, this, i + 1);
        } catch (const std::system_error&) {
            break; // fewer lanes, same results
        }
    }
}

FftLanes::~FftLanes()
{
    Wait();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread& t : m_helpers)
        t.join();
    for (FftWorkspace& ws : m_workspaces)
        FftFreeWorkspace(&ws);
}

void FftLanes::Run(const Job& job)
{
    if (m_helpers.empty()) {
        job(m_main, 0, 1);
        return;
    }
    Post(job, true);
    job(m_main, 0, Count());
    Wait();
}

void FftLanes::Start(Job job)
{
    if (m_helpers.empty()) {
        job(m_main, 0, 1);
        return;
    }
    Post(std::move(job), false);
}

void FftLanes::Post(Job job, bool callerShares)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_job = std::move(job);
        m_callerShares = callerShares;
        m_busy = static_cast<int>(m_helpers.size());
        ++m_generation;
    }
    m_wake.notify_all();
}

void FftLanes::Wait()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_done.wait(lock, [this] { return m_busy == 0; });
}

void FftLanes::HelperLoop(int lane)
{
    unsigned long seen = 0;
    for (;;) {
        int share, shares;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_wake.wait(lock, [&] { return m_stop || m_generation != seen; });
            if (m_stop)
                return;
            seen = m_generation;
            share = m_callerShares ? lane : lane - 1;
            shares = m_callerShares ? Count() : Count() - 1;
        }
        // m_job is not replaced before every helper has reported back.
        m_job(m_workspaces[lane - 1], share, shares);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            --m_busy;
        }
        m_done.notify_all();
    }
}
