#pragma once
#include "frame/RasterAccess.h"
#include "frame/RunSteps.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Reads the row blocks of one pass ahead of the rows being computed, on a thread of its own, so
// that reading and arithmetic overlap. While it lives only its thread touches the input; progress,
// cancellation and the output stay on the run's thread.
class BlockReader {
public:
    // Fills `rows` with the block's rows.
    using ReadFn = std::function<void(const RowBlock& block, float* rows)>;
    BlockReader(const RowBlocks& blocks, long long blockSamples, ReadFn read);
    ~BlockReader();
    BlockReader(const BlockReader&) = delete;
    BlockReader& operator=(const BlockReader&) = delete;

    // False when memory was short; nothing is read then.
    bool Ready() const { return m_thread.joinable(); }
    // The next block's rows, in order, once they are read.
    const float* Next();
    // The oldest block handed out is done with; its rows may be read over.
    void Release();

private:
    void Run();

    static constexpr int kSlots = 4;
    RowBlocks m_blocks;
    ReadFn m_readFn;
    std::vector<TypedBuffer<float>> m_slots;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_readCount = 0, m_taken = 0, m_released = 0;
    bool m_stop = false;
    std::thread m_thread;
};
