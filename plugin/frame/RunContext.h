#pragma once
#include "OrvAlgo/IOrvAlgo.h"

#include <QString>
#include <atomic>
#include <boost/any.hpp>
#include <cstdint>
#include <functional>

// What a worker may touch of the algorithm object: progress, the cancel flag, the error
// information and the parameter holder. The algorithm object owns one for its whole life.
class RunContext {
public:
    RunContext(OrvAlgo::IOrvAlgo& algo, std::atomic<int32_t>& cancel) : m_algo(algo), m_cancel(cancel) {}
    RunContext(const RunContext&) = delete;
    RunContext& operator=(const RunContext&) = delete;

    // Every report names the algorithm object as its context.
    void Report(double percent, const QString& message) const;
    // A worker's poll. The flag is written only by Terminate from another thread; read without
    // ordering on purpose. A run polls once a pixel, so the hook costs nothing unless it is set.
    bool CancelRequested() const
    {
        const int32_t flag = m_cancel.load(std::memory_order_relaxed);
        return flag != 0 && (flag == 1 || HookedPoll());
    }
    // Tests: the hook is called at every poll before the flag is read, to raise it at any one poll.
    // It is marked in the flag itself (kHooked), which only a 1 from Terminate means stop.
    void SetPollHook(std::function<void()> hook);
    void SetErrorInfo(int code, const QString& text) const { m_algo.SetErrorInfo(code, text); }
    boost::any Params() const { return m_algo.GetParams(); }
    void SetParams(const boost::any& params) const { m_algo.SetParams(params); }

private:
    static constexpr int32_t kHooked = 2;
    bool HookedPoll() const;

    OrvAlgo::IOrvAlgo& m_algo;
    std::atomic<int32_t>& m_cancel;
    std::function<void()> m_pollHook;
};
