#include "mnf/MNFBlockReader.h"
#include "mnf/MNFRun.h"

BlockReader::BlockReader(const RowBlocks& blocks, long long blockSamples, ReadFn read)
    : m_blocks(blocks), m_readFn(std::move(read))
{
    for (int i = 0; i < kSlots; ++i) {
        m_slots.push_back(NewRows<float>(blockSamples));
        if (!m_slots.back())
            return;
    }
    m_thread = std::thread([this] { Run(); });
}

BlockReader::~BlockReader()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void BlockReader::Run()
{
    for (int i = 0; i < m_blocks.Count(); ++i) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [&] { return m_stop || i - m_released < kSlots; });
            if (m_stop)
                return;
        }
        m_readFn(m_blocks[i], m_slots[i % kSlots].get());
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_readCount = i + 1;
        }
        m_changed.notify_all();
    }
}

const float* BlockReader::Next()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_taken >= m_blocks.Count())
        return nullptr;
    m_changed.wait(lock, [&] { return m_readCount > m_taken; });
    return m_slots[m_taken++ % kSlots].get();
}

void BlockReader::Release()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_released;
    }
    m_changed.notify_all();
}
