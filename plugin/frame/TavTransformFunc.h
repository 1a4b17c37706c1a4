#pragma once
#include "OrvAlgo/IOrvAlgo.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class CPCAEngine;

// The module's algorithm object: takes one parameter record, runs its transform, owns the
// clean-up rules after a failure or a cancellation.
class TavTransformFunc : public OrvAlgo::IOrvAlgo {
public:
    TavTransformFunc();
    ~TavTransformFunc() override;

    bool Execute() override;
    void Terminate() override;

    // Polled by the workers; written only by Terminate, read without ordering on purpose.
    bool CancelRequested() const { return m_nCancel.load(std::memory_order_relaxed) == 1; }
    void Report(double percent, const QString& message);

private:
    bool ExecuteTransInfo();
    bool ExecuteForwardPCA();
    bool ExecuteInversePCA();

    std::atomic<int32_t> m_nCancel{0};
    CPCAEngine* m_pPCAEngine = nullptr;
    // Engines an inverse run replaced: left alone as the run requires, freed with this object.
    std::vector<std::unique_ptr<CPCAEngine>> m_replacedEngines;
};

extern "C" __attribute__((visibility("default"))) OrvAlgo::IOrvAlgo* GetAlgoObj();
