#pragma once
#include "OrvAlgo/IOrvAlgo.h"
#include "frame/RunContext.h"

#include <atomic>
#include <initializer_list>
#include <cstdint>
#include <memory>
#include <vector>

class CPCAEngine;
struct stTransInfo;
struct stMaskInfo;
struct stBandFill;
struct stMaskedTransInfo;
struct stMaskInfo;

// The module's algorithm object: takes one parameter record, runs its transform, owns the
// clean-up rules after a failure or a cancellation.
class TavTransformFunc : public OrvAlgo::IOrvAlgo {
public:
    TavTransformFunc();
    ~TavTransformFunc() override;

    bool Execute() override;
    void Terminate() override;

    // Execute's own look at the flag once a worker is back; not one of the worker's polls.
    bool CancelRequested() const { return m_nCancel.load(std::memory_order_relaxed) == 1; }
    // What the workers see of this object.
    const RunContext& Context() const { return m_context; }
    RunContext& Context() { return m_context; }

private:
    bool ExecuteTransInfo();
    bool ExecuteForwardPCA();
    bool ExecuteInversePCA();
    bool ExecuteTasseledCapSet();
    // Masked runs, in branches of their own (MaskedDispatch.cpp).
    bool ExecuteMaskedTransInfo();
    bool ExecuteMaskedForwardPCA();
    bool ExecuteMaskedInversePCA();
    bool ExecuteMaskedForwardMNF();
    bool RefuseMasked();
    bool RunMaskedTasseledCap(const stMaskedTransInfo& masked);
    // Execute's end of a PCA run: the 100 report, and on a cancel -1010 and the removals.
    bool FinishPca(int status, std::initializer_list<QString> removedOnCancel);
    // mask: a masked run's (null: none); pixels: where a masked forward run leaves the valid and
    // total pixel counts.
    bool RunMnf(const stTransInfo& info, const stMaskInfo* mask = nullptr, long long* pixels = nullptr);
    // With a mask, the forward runs fill masked pixels and say which bands they filled.
    bool RunFourier(const stTransInfo& info, const stMaskInfo* mask = nullptr,
                    std::vector<stBandFill>* filled = nullptr);
    bool RunWavelet(const stTransInfo& info, const stMaskInfo* mask = nullptr,
                    std::vector<stBandFill>* filled = nullptr);
    bool RunTasseledCap(const stTransInfo& info);
    // The Tasseled Cap's clean-up after a worker returned `ok`, for both of its runs.
    bool FinishTasseledCap(bool ok, const QString& workerText, const QString& output);
    void Report(double percent) { m_context.Report(percent, QString()); }

    std::atomic<int32_t> m_nCancel{0};
    CPCAEngine* m_pPCAEngine = nullptr;
    // Engines an inverse run replaced: left alone as the run requires, freed with this object.
    std::vector<std::unique_ptr<CPCAEngine>> m_replacedEngines;
    RunContext m_context{*this, m_nCancel};
};

extern "C" __attribute__((visibility("default"))) OrvAlgo::IOrvAlgo* GetAlgoObj();
