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
    RunContext(OrvAlgo::IOrvAlgo& algo, const std::atomic<int32_t>& cancel) : m_algo(algo), m_cancel(cancel) {}
    RunContext(const RunContext&) = delete;
    RunContext& operator=(const RunContext&) = delete;

    // Every report names the algorithm object as its context.
    void Report(double percent, const QString& message) const;
    // A worker's poll. The flag is written only by Terminate from another thread; read without
    // ordering on purpose.
    bool CancelRequested() const
    {
        if (m_pollHook)
            m_pollHook();
        return m_cancel.load(std::memory_order_relaxed) == 1;
    }
    // Called at every poll, before the flag is read: lets a test raise the flag at any one poll.
    void SetPollHook(std::function<void()> hook) { m_pollHook = std::move(hook); }
    void SetErrorInfo(int code, const QString& text) const { m_algo.SetErrorInfo(code, text); }
    boost::any Params() const { return m_algo.GetParams(); }
    void SetParams(const boost::any& params) const { m_algo.SetParams(params); }

private:
    OrvAlgo::IOrvAlgo& m_algo;
    const std::atomic<int32_t>& m_cancel;
    std::function<void()> m_pollHook;
};
