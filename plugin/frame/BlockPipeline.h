#pragma once
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

// Runs the arithmetic of a pass on a helper thread, block after block in order, while the run's
// thread reads the blocks ahead and writes the ones done. Each block lives in slot
// block % Slots() of buffers the caller owns; the helper only computes on them. Reading, writing,
// progress and cancellation stay on the run's thread, which also computes a block itself when it
// would otherwise wait for a helper that has not started it: one block at a time, in order, so
// compute may keep state from block to block.
class BlockPipeline {
public:
    using ComputeFn = std::function<void(int block)>;
    BlockPipeline(int slots, ComputeFn compute);
    ~BlockPipeline(); // stops the helper once the block it is on is done
    BlockPipeline(const BlockPipeline&) = delete;
    BlockPipeline& operator=(const BlockPipeline&) = delete;

    // False when the system gave no thread; nothing runs then.
    bool Ready() const { return m_helper.joinable(); }
    int Slots() const { return m_slots; }

    // Blocks 0 .. count − 1, on the calling thread: fill(b) puts block b into its slot; the helper
    // computes it; done(b) runs once b is computed, in order, before b's slot is filled again.
    // Either returning false stops the stream, which then returns false.
    bool Stream(int count, const std::function<bool(int block)>& fill,
                const std::function<bool(int block)>& done = {});

private:
    void Run();
    void ComputeNext(std::unique_lock<std::mutex>& lock);
    void Submit();
    void WaitComputed(int block);

    ComputeFn m_compute;
    int m_slots;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_submitted = 0, m_computed = 0;
    bool m_busy = false, m_stop = false;
    std::thread m_helper;
};
