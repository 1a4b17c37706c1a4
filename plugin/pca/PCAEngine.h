#pragma once
#include "frame/PCARecords.h"
#include "frame/RasterAccess.h"
#include "frame/RunContext.h"
#include "pca/PCAStatFile.h"

#include "OrvDataSource/RasterDataset.h"

#include <Eigen/Dense>
#include <functional>
#include <memory>
#include <vector>

struct PcaSampleRange;
class PcaMask;
struct stMaskedForwardPCAInfo;
struct stMaskedInversePCAInfo;
class ProgressSpan;

// Rows [first, first + rows) by columns [x0, x0 + cols) of a pass, inside block `block`; the
// block's last chunk reports.
struct PcaChunk {
    int block, first, rows, x0, cols;
    bool lastOfBlock;
    long long Pixels() const { return static_cast<long long>(rows) * cols; }
};

// Principal component engine; lives in the algorithm object between runs, so a rotation-only run
// projects with the eigenvectors of an earlier statistics-only run.
class CPCAEngine {
public:
    CPCAEngine(const QString& input, const RunContext* context);
    ~CPCAEngine();
    CPCAEngine(const CPCAEngine&) = delete;
    CPCAEngine& operator=(const CPCAEngine&) = delete;

    // 0 success; 1 input or statistics file, 2 output, 6 cancelled, 14 no routine for the types.
    int ForwardDriver(const stForwardPCAInfo& info);
    int InverseDriver(const stInversePCAInfo& info);
    // The forward run that leaves masked pixels out of the statistics and writes the no-data value
    // there (PCAMasked.cpp); with nothing to mask it is ForwardDriver itself.
    int MaskedForwardDriver(const stMaskedForwardPCAInfo& masked);
    // The inverse that writes the no-data value where the component raster is masked.
    int MaskedInverseDriver(const stMaskedInversePCAInfo& masked);

    // Per (input, output) sample type; public only so one dispatch can reach them.
    template <class TIn, class TOut>
    int StepRoutine(const QString& output, int components, bool subtractMean, const QString& format);
    template <class TIn, class TOut>
    int InverseRoutine(const QString& output, const Eigen::MatrixXd& back, const double* means,
                       const QString& format);

private:
    using RasterPtr = OrvUtility::_ptr_t<OrvDataSource::RasterDataset>;

    template <class TIn>
    int StatisticsPass(int components);
    template <class TIn, class TOut>
    int Projection(const QString& output, int components, bool subtractMean, const QString& format);
    template <class TIn>
    using ChunkWork = std::function<void(const PcaChunk&, const TIn* samples, int slot)>;
    template <class TIn>
    using ChunkDone = std::function<bool(const PcaChunk&, const TIn* samples, int slot)>;
    template <class TIn>
    int StreamChunks(long long rows, const ProgressSpan& span, bool announce, const ChunkWork<TIn>& compute,
                     const ChunkDone<TIn>& done = {});
    template <class TIn, class TOut>
    int RotateBlocks(OrvDataSource::RasterDataset& out, long long rows, int m, const double* sub,
                     const double* weights, const double* add, const ProgressSpan& span);
    template <class TIn>
    static PcaSampleRange InputRange(OrvDataSource::RasterDataset& raster, bool& refused);

    bool PrepareForward(const stForwardPCAInfo& info, int& status);
    bool ResetAccumulators();
    void EnsureStatFile();
    long long BlockRows() const;
    int FinishMatrix();
    bool DecomposeAndStore();
    void HandBackEigenValues() const;

    QString m_strInput;
    RasterPtr m_pDataset;
    int m_nBands = 0;
    TypedBuffer<double> m_pSum;   // sums, then means
    TypedBuffer<double> m_pSumSq; // sums of squares, then standard deviations
    bool m_bCovariance = true;
    QString m_strStatFile;
    std::unique_ptr<CPCAStatFile> m_pStatFile;
    TypedBuffer<double> m_pCross; // cross products, then the covariance or correlation matrix
    Eigen::MatrixXd m_matrix;
    std::vector<double> m_eigenValues;
    Eigen::MatrixXd m_eigenVectors; // column k is component k
    Eigen::MatrixXd m_projection;
    int m_nInType = 0;
    int m_nOutType = 6;
    std::vector<double> m_contribution;
    std::vector<double> m_cumulative;
    int m_nBlockMi = 4;
    bool m_bStepwise = false;
    PcaMask* m_pMask = nullptr; // set only while a masked run is in the driver
    const RunContext* m_pContext;
};
