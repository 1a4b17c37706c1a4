#include "frame/BlockPipeline.h"

#include <algorithm>
#include <system_error>

BlockPipeline::BlockPipeline(int slots, ComputeFn compute) : m_compute(std::move(compute)), m_slots(std::max(slots, 1))
{
    // A thread the system will not give is a run that cannot go on, not an exception for the host.
    try {
        m_helper = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
    }
}

BlockPipeline::~BlockPipeline()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_helper.joinable())
        m_helper.join();
}

void BlockPipeline::Run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [&] { return m_stop || (!m_busy && m_submitted > m_computed); });
        if (m_stop)
            return;
        ComputeNext(lock);
    }
}

// The oldest block not yet computed, by whichever thread holds the lock; blocks stay in order
// because only one is computed at a time.
void BlockPipeline::ComputeNext(std::unique_lock<std::mutex>& lock)
{
    const int block = m_computed;
    m_busy = true;
    lock.unlock();
    m_compute(block);
    lock.lock();
    m_busy = false;
    m_computed = block + 1;
    m_changed.notify_all();
}

void BlockPipeline::Submit()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_submitted;
    }
    m_changed.notify_all();
}

// A helper that is not on the block (on a busy machine it may not have run for a while) leaves it
// to the waiting thread, which computes it rather than sleep.
void BlockPipeline::WaitComputed(int block)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_computed <= block) {
        if (!m_busy && m_submitted > m_computed)
            ComputeNext(lock);
        else
            m_changed.wait(lock);
    }
}

bool BlockPipeline::Stream(int count, const std::function<bool(int)>& fill,
                           const std::function<bool(int)>& done)
{
    int released = 0;
    auto retire = [&] {
        WaitComputed(released);
        const int block = released++;
        return !done || done(block);
    };
    for (int block = 0; block < count; ++block) {
        if (block - released == m_slots && !retire())
            return false;
        if (!fill(block))
            return false;
        Submit();
    }
    while (released < count)
        if (!retire())
            return false;
    return true;
}
