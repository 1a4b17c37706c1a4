#pragma once
// Stand-in for the shared run steps until they are on this branch.
#include "frame/TavTransformFunc.h"

#include <QString>
#include <boost/any.hpp>
#include <algorithm>

class RunContext {
public:
    explicit RunContext(TavTransformFunc* algo) : m_algo(algo) {}
    void Report(double percent, const QString& message) const { m_algo->Report(percent, message); }
    bool CancelRequested() const { return m_algo->CancelRequested(); }
    void SetErrorInfo(int code, const QString& text) const { m_algo->SetErrorInfo(code, text); }
    boost::any Params() const { return m_algo->GetParams(); }
    void SetParams(const boost::any& p) const { m_algo->SetParams(p); }

private:
    TavTransformFunc* m_algo;
};

enum class ProgressMath { Double, Single, Integer };
class ProgressSpan {
public:
    ProgressSpan(const RunContext& ctx, QString message, double from = 0, double to = 100,
                 ProgressMath math = ProgressMath::Double)
        : m_ctx(ctx), m_message(std::move(message)), m_from(from), m_to(to), m_math(math) {}
    double PercentAt(long long done, long long total) const
    {
        return static_cast<double>(static_cast<long long>(m_from) +
                                   (static_cast<long long>(m_to - m_from) * done) / total);
    }
    void Report(long long done, long long total) const { m_ctx.Report(PercentAt(done, total), m_message); }
    bool ReportAndPoll(long long done, long long total) const
    {
        Report(done, total);
        return !m_ctx.CancelRequested();
    }
    void ReportPercent(double percent) const { m_ctx.Report(percent, m_message); }
    bool Cancelled() const { return m_ctx.CancelRequested(); }

private:
    const RunContext& m_ctx;
    QString m_message;
    double m_from, m_to;
    ProgressMath m_math;
};

struct RowBlock { int index; int first; int rows; };
class RowBlocks {
public:
    RowBlocks(int height, int rowsPerBlock) : m_height(height), m_rows(rowsPerBlock) {}
    int Count() const { return (m_height + m_rows - 1) / m_rows; }
    RowBlock operator[](int i) const { return {i, i * m_rows, std::min(m_rows, m_height - i * m_rows)}; }

private:
    int m_height, m_rows;
};
inline long long RowsWithin(long long samples, long long width, long long bands)
{
    return width * bands > 0 ? samples / (width * bands) : 0;
}

#include "frame/RasterAccess.h"
template <class T>
constexpr int PixelTypeOf()
{
    if constexpr (std::is_same_v<T, uint8_t>) return 1;
    else if constexpr (std::is_same_v<T, uint16_t>) return 2;
    else if constexpr (std::is_same_v<T, int16_t>) return 3;
    else if constexpr (std::is_same_v<T, uint32_t>) return 4;
    else if constexpr (std::is_same_v<T, int32_t>) return 5;
    else if constexpr (std::is_same_v<T, float>) return 6;
    else return 7;
}
template <class T>
TypedBuffer<T> NewSamples(long long count)
{
    return TypedBuffer<T>(static_cast<T*>(NewTypedBuffer(PixelTypeOf<T>(), count)));
}
