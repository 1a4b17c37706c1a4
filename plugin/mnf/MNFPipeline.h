#pragma once
#include "frame/RasterAccess.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Runs the arithmetic of a pass on a helper thread, block after block in order, while the run's
// thread reads the blocks ahead and writes the ones done. The helper only computes on the slots;
// reading, writing, progress and cancellation stay on the run's thread.
class BlockPipeline {
public:
    // Computes on the block's rows; `previous` is the block before's (null for the first).
    using ComputeFn = std::function<void(int block, float* rows, const float* previous)>;
    BlockPipeline(int slots, long long slotSamples, ComputeFn compute);
    ~BlockPipeline(); // stops the helper once the block it is on is done
    BlockPipeline(const BlockPipeline&) = delete;
    BlockPipeline& operator=(const BlockPipeline&) = delete;

    // False when memory or a thread was short; nothing runs then.
    bool Ready() const { return m_helper.joinable(); }
    int Slots() const { return static_cast<int>(m_slots.size()); }
    float* Slot(int block) const { return m_slots[block % m_slots.size()].get(); }
    int Submitted() const { return m_submitted; }
    int Released() const { return m_released; }
    // The block in Slot(Submitted()) is read: compute it. The caller first makes sure that
    // Submitted() − Released() < Slots().
    void Submit();
    // Waits until the block is computed.
    void WaitComputed(int block);
    // The oldest block still held may be read over.
    void Release() { ++m_released; }

private:
    void Run();

    ComputeFn m_compute;
    std::vector<TypedBuffer<float>> m_slots;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_submitted = 0, m_computed = 0, m_released = 0;
    bool m_stop = false;
    std::thread m_helper;
};
