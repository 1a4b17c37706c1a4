#pragma once
// The caller's thread and a few helper threads kept for one Fourier run, each lane with a
// kernel workspace of its own. Every line is transformed by the same code whichever lane takes
// it, so the results do not depend on the number of lanes.

#include "fft/FftKernel.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

class FftLanes {
public:
    // Lane 0 is the caller's thread and uses `mainWorkspace`; lanes - 1 helpers are started (fewer
    // if the system refuses threads).
    FftLanes(FftWorkspace& mainWorkspace, int lanes);
    ~FftLanes();
    FftLanes(const FftLanes&) = delete;
    FftLanes& operator=(const FftLanes&) = delete;

    int Count() const { return 1 + static_cast<int>(m_helpers.size()); }

    // job(workspace, share, shares): the job's share of `shares` equal parts of its work.
    using Job = std::function<void(FftWorkspace& ws, int share, int shares)>;

    // The job on every lane at once, share 0 on the caller's thread; returns when all are done.
    void Run(const Job& job);
    // The job on the helper lanes only, returning at once, so that the caller can read meanwhile;
    // with no helpers it runs on the caller's thread before returning. Wait() waits for it.
    void Start(Job job);
    void Wait();

    // Lanes a run uses by default: the machine's cores, at most four.
    static int DefaultCount();

private:
    void HelperLoop(int lane);
    void Post(Job job, bool callerShares);

    FftWorkspace& m_main;
    std::vector<FftWorkspace> m_workspaces;
    std::vector<std::thread> m_helpers;
    std::mutex m_mutex;
    std::condition_variable m_wake, m_done;
    Job m_job;
    bool m_callerShares = false; // Run: the caller takes share 0, the helpers the rest
    unsigned long m_generation = 0;
    int m_busy = 0;
    bool m_stop = false;
};

// Lanes the Fourier runs use; 0 (the default) means FftLanes::DefaultCount(). Tests set it to
// check that a run's output is the same on any number of lanes.
void SetFftLanes(int lanes);
int FftLaneCount();

// [first, end) of `count` items for `lane` of `lanes`: contiguous, in lane order, sizes differing by one at most.
inline void LaneShare(int count, int lane, int lanes, int& first, int& end)
{
    first = static_cast<int>(static_cast<long long>(count) * lane / lanes);
    end = static_cast<int>(static_cast<long long>(count) * (lane + 1) / lanes);
}
