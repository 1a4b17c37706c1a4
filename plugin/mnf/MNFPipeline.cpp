#include "mnf/MNFPipeline.h"
#include "mnf/MNFRun.h"

#include <system_error>

BlockPipeline::BlockPipeline(int slots, long long slotSamples, ComputeFn compute) : m_compute(std::move(compute))
{
    for (int i = 0; i < slots; ++i) {
        m_slots.push_back(NewRows<float>(slotSamples));
        if (!m_slots.back())
            return;
    }
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
    for (int block = 0;; ++block) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_stop || m_submitted > block; });
            if (m_stop)
                return;
        }
        m_compute(block, Slot(block), block > 0 ? Slot(block - 1) : nullptr);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_computed = block + 1;
        }
        m_changed.notify_all();
    }
}

void BlockPipeline::Submit()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_submitted;
    }
    m_changed.notify_all();
}

void BlockPipeline::WaitComputed(int block)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [&] { return m_computed > block; });
}
