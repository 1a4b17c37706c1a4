#pragma once
// Runs the algorithm object the way a host does: a record in the holder, a slot on the signal.
#include "TavTransformFunc.h"
#include "frame/RasterAccess.h"
#include "frame/stTransInfo.h"

#include <QString>
#include <functional>
#include <utility>
#include <vector>

namespace tavtest {

struct ProgressEvent {
    double percent;
    QString message;
    void* context;
};

class AlgoHarness {
public:
    AlgoHarness()
    {
        m_algo.SetProgressSignal(&m_signal);
        m_signal.connect([this](double p, const QString& m, void* c) {
            events.push_back({p, m, c});
            if (onProgress)
                onProgress(p);
            return slotResult;
        });
    }

    template <class Record>
    bool Run(const Record& record)
    {
        events.clear();
        m_algo.SetParams(record);
        return m_algo.Execute();
    }

    int Code() const
    {
        int code = 0;
        QString text;
        m_algo.GetErrorInfo(code, text);
        return code;
    }
    QString Text() const
    {
        int code = 0;
        QString text;
        m_algo.GetErrorInfo(code, text);
        return text;
    }
    std::vector<double> Percents() const
    {
        std::vector<double> v;
        for (const auto& e : events)
            v.push_back(e.percent);
        return v;
    }

    TavTransformFunc& algo() { return m_algo; }

    std::vector<ProgressEvent> events;
    std::function<void(double)> onProgress; // e.g. call Terminate at a chosen report
    int slotResult = 0;

private:
    OrvAlgo::ProgressSignal m_signal;
    TavTransformFunc m_algo;
};

// Replaces the free-space query while it lives: a drive with `freeBytes` free, of which the
// caller may use `available`.
class FakeFreeSpace {
public:
    explicit FakeFreeSpace(unsigned long long freeBytes, unsigned long long available = 0) : m_saved(FreeSpaceSeam())
    {
        FreeSpaceSeam() = [=, this](const QString& folder) {
            asked = folder;
            return DriveSpace{freeBytes, available};
        };
    }
    ~FakeFreeSpace() { FreeSpaceSeam() = m_saved; }
    FakeFreeSpace(const FakeFreeSpace&) = delete;
    FakeFreeSpace& operator=(const FakeFreeSpace&) = delete;
    QString asked; // the folder the last query named

private:
    FreeSpaceQuery m_saved;
};

inline stTransInfo TransRecord(int type, bool forward, const std::string& in, const std::string& out,
                               const std::string& format = "GTiff")
{
    stTransInfo info;
    info.nTransType = type;
    info.bForward = forward;
    info.strInputFile = QString::fromStdString(in);
    info.strOutputFile = QString::fromStdString(out);
    info.strFormat = QString::fromStdString(format);
    return info;
}

} // namespace tavtest
