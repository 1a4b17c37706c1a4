#include "fft/FftKernel.h"

#include "fft/FftKernelPlan.h"
#include "frame/RasterAccess.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>

namespace {

constexpr int kMaxFactors = 11;

// Rewritten by every pass; this is what makes the kernel non-reentrant.
int g_factors[kMaxFactors];

int fail(FftWorkspace* ws)
{
    FftFreeWorkspace(ws);
    return -1;
}

// Grows the scratch arrays to the sizes a pass asks for; false when memory runs out.
bool growWorkspace(FftWorkspace* ws, int maxFactors, int maxPerm)
{
    if (maxFactors > INT32_MAX / static_cast<int>(sizeof(float))) return false;
    const int32_t bytes = maxFactors * static_cast<int32_t>(sizeof(float));
    if (ws->spaceAllocated < bytes) {
        // Scratch keeps nothing between passes: a larger array replaces the old one.
        for (float** t : {&ws->tmp0, &ws->tmp1, &ws->tmp2, &ws->tmp3}) {
            FreeWorking(*t);
            *t = static_cast<float*>(AllocateWorking(static_cast<std::size_t>(bytes)));
            if (!*t) return false;
        }
        ws->spaceAllocated = bytes;
    }
    if (ws->maxPermAllocated < maxPerm) {
        FreeWorking(ws->perm);
        ws->perm = static_cast<int32_t*>(AllocateWorking(sizeof(int32_t) * static_cast<std::size_t>(maxPerm)));
        if (!ws->perm) return false;
        ws->maxPermAllocated = maxPerm;
    }
    return ws->tmp0 && ws->tmp1 && ws->tmp2 && ws->tmp3 && ws->perm;
}

// The factor list must fit and every general odd factor and the square-free permutation
// must fit the scratch the caller sized.
bool factorsFit(int n, int maxFactors, int maxPerm)
{
    int kt = 0;
    const int count = FftFactorize(n, &kt);
    if (count > kMaxFactors) return false;
    for (int i = 0; i < count; ++i)
        if (g_factors[i] > 5 && g_factors[i] > maxFactors) return false;
    if (count - 2 * kt > 1) {
        long long squareFree = 1;
        for (int i = kt; i < count - kt; ++i) squareFree *= g_factors[i];
        if (squareFree - 1 > maxPerm) return false;
    }
    return true;
}

using LineTransform = bool (*)(FftWorkspace* ws, int n, int sign, float* re, float* im,
                               std::ptrdiff_t stride);

// Validation, scratch and factor checks shared by both paths, then every line of the pass.
int radixPass(FftWorkspace* ws, float* Re, float* Im, int nTotal, int nPass, int nSpan, int iSign,
              int maxFactors, int maxPerm, LineTransform line)
{
    if (nPass < 2) return 0;
    if (!ws) return -1;
    if (!Re || !Im || iSign == 0 || maxFactors < 1 || maxPerm < 1 || nSpan < nPass ||
        nSpan % nPass != 0 || nTotal < nSpan || nTotal % nSpan != 0)
        return fail(ws);
    if (!growWorkspace(ws, maxFactors, maxPerm)) return fail(ws);
    if (!factorsFit(nPass, maxFactors, maxPerm)) return fail(ws);

    const std::ptrdiff_t stride = iSign < 0 ? -static_cast<std::ptrdiff_t>(iSign) : iSign;
    const int sign = iSign > 0 ? 1 : -1;
    const std::ptrdiff_t inner = nSpan / nPass;
    for (std::ptrdiff_t outer = 0; outer < nTotal; outer += nSpan)
        for (std::ptrdiff_t i = 0; i < inner; ++i) {
            const std::ptrdiff_t base = (outer + i) * stride;
            if (!line(ws, nPass, sign, Re + base, Im + base, inner * stride)) return fail(ws);
        }
    return 0;
}

bool fastLine(FftWorkspace* ws, int n, int sign, float* re, float* im, std::ptrdiff_t stride)
{
    FftPlan* plan = FftPlanGet(ws->plans, n, sign);
    if (!plan) return false;
    FftPlanRun(plan, re, im, stride);
    return true;
}

// ---------------------------------------------------------------------------------------
// Plain path: recursive decimation in time over the factor list, one generic DFT per
// factor with sums in double. Slow on purpose; it exists to check the fast path.

struct PlainLine {
    int n;
    int sign;
    const int* factors;
    double* wr;  // exp(sign*2*pi*i*t/n), t < n
    double* wi;
    float* yr;   // the line's result, in order
    float* yi;
    FftWorkspace* ws;
};

void plainRotate(const PlainLine& L, int p, int m, int twStep, std::ptrdiff_t k, float* yr, float* yi)
{
    // Twiddled inputs and the rotation table of this factor; general factors use the workspace.
    double localTr[5], localTi[5];
    float localCos[5], localSin[5];
    const bool general = p > 5;
    float* cosT = general ? L.ws->tmp0 : localCos;
    float* sinT = general ? L.ws->tmp1 : localSin;
    float* tr = general ? L.ws->tmp2 : nullptr;
    float* ti = general ? L.ws->tmp3 : nullptr;
    for (int t = 0; t < p; ++t) {
        const double a = 2.0 * M_PI * t / p;
        cosT[t] = static_cast<float>(std::cos(a));
        sinT[t] = static_cast<float>(L.sign * std::sin(a));
    }
    for (int j = 0; j < p; ++j) {
        const std::ptrdiff_t e = (static_cast<std::ptrdiff_t>(j) * k % (static_cast<std::ptrdiff_t>(p) * m)) * twStep;
        const double xr = yr[j * m + k], xi = yi[j * m + k];
        const double vr = xr * L.wr[e] - xi * L.wi[e];
        const double vi = xr * L.wi[e] + xi * L.wr[e];
        if (general) {
            tr[j] = static_cast<float>(vr);
            ti[j] = static_cast<float>(vi);
        } else {
            localTr[j] = vr;
            localTi[j] = vi;
        }
    }
    for (int l = 0; l < p; ++l) {
        double sr = 0.0, si = 0.0;
        for (int j = 0; j < p; ++j) {
            const int t = static_cast<int>(static_cast<long long>(j) * l % p);
            const double ar = general ? tr[j] : localTr[j];
            const double ai = general ? ti[j] : localTi[j];
            sr += ar * cosT[t] - ai * sinT[t];
            si += ar * sinT[t] + ai * cosT[t];
        }
        yr[k + static_cast<std::ptrdiff_t>(m) * l] = static_cast<float>(sr);
        yi[k + static_cast<std::ptrdiff_t>(m) * l] = static_cast<float>(si);
    }
}

void plainRecurse(const PlainLine& L, const float* xr, const float* xi, std::ptrdiff_t xs, int n,
                  int depth, float* yr, float* yi)
{
    if (n == 1) {
        yr[0] = xr[0];
        yi[0] = xi[0];
        return;
    }
    const int p = L.factors[depth];
    const int m = n / p;
    for (int j = 0; j < p; ++j)
        plainRecurse(L, xr + j * xs, xi + j * xs, xs * p, m, depth + 1, yr + j * m, yi + j * m);
    for (std::ptrdiff_t k = 0; k < m; ++k) plainRotate(L, p, m, L.n / n, k, yr, yi);
}

bool plainLine(FftWorkspace* ws, int n, int sign, float* re, float* im, std::ptrdiff_t stride)
{
    int kt = 0;
    FftFactorize(n, &kt);
    int factors[kMaxFactors];
    for (int i = 0; i < kMaxFactors; ++i) factors[i] = g_factors[i];
    const std::size_t un = static_cast<std::size_t>(n);
    double* w = static_cast<double*>(AllocateWorking(sizeof(double) * 2 * un));
    float* y = static_cast<float*>(AllocateWorking(sizeof(float) * 2 * un));
    if (!w || !y) {
        FreeWorking(w);
        FreeWorking(y);
        return false;
    }
    PlainLine L{n, sign, factors, w, w + n, y, y + n, ws};
    for (int t = 0; t < n; ++t) {
        const double a = 2.0 * M_PI * t / n;
        L.wr[t] = std::cos(a);
        L.wi[t] = sign * std::sin(a);
    }
    plainRecurse(L, re, im, stride, n, 0, L.yr, L.yi);
    for (int t = 0; t < n; ++t) {
        re[t * stride] = L.yr[t];
        im[t * stride] = L.yi[t];
    }
    FreeWorking(w);
    FreeWorking(y);
    return true;
}

// The factor FftN multiplies by afterwards, or false when it leaves the sums as they are.
bool scaleFactor(double scaling, long long nTotal, double& factor)
{
    if (scaling == 0.0 || scaling == 1.0) return false;
    if (scaling < 0.0)
        scaling = scaling >= -1.0 ? static_cast<double>(nTotal) : std::sqrt(static_cast<double>(nTotal));
    factor = 1.0 / scaling;
    return true;
}

// Contiguous elements vectorise; each product is still formed in double and rounded once, so
// the wider clone gives the same bits.
__attribute__((target_clones("arch=x86-64-v3", "default"))) void scaleLine(float* re, float* im, long long n,
                                                                              double factor)
{
    for (long long i = 0; i < n; ++i) {
        re[i] = static_cast<float>(re[i] * factor);
        im[i] = static_cast<float>(im[i] * factor);
    }
}

// Counts the dimensions and their product; false for any invalid description.
bool describeDims(long long ndim, const int* dims, int& count, long long& nTotal, int& largest)
{
    nTotal = 1;
    largest = 0;
    count = 0;
    auto add = [&](long long len) {
        if (len < 1 || len > INT_MAX) return false;
        nTotal *= len;
        if (nTotal > INT_MAX) return false;
        if (len > largest) largest = static_cast<int>(len);
        ++count;
        return true;
    };
    if (!dims) return ndim > 0 && add(ndim);
    if (ndim > 0) {
        for (long long i = 0; i < ndim; ++i)
            if (!add(dims[i])) return false;
        return true;
    }
    if (ndim < 0) return false;
    for (const int* d = dims; *d != 0; ++d)
        if (!add(*d)) return false;
    return count > 0;
}

}  // namespace

int FftFactorize(int n, int* kt)
{
    int count = 0;
    if (kt) *kt = 0;
    if (n < 1) return 0;
    auto put = [&count](int f) {
        if (count < kMaxFactors) g_factors[count] = f;
        ++count;
    };
    int k = n;
    while (k % 16 == 0) {
        put(4);
        k /= 16;
    }
    for (int j = 3; static_cast<long long>(j) * j <= k; j += 2)
        while (k % (j * j) == 0) {
            put(j);
            k /= j * j;
        }
    int squares;
    if (k <= 4) {
        squares = count;
        if (count < kMaxFactors) g_factors[count] = k;
        if (k != 1) ++count;
    } else {
        if (k % 4 == 0) {
            put(2);
            k /= 4;
        }
        squares = count;
        for (int j = 2; j <= k; j = (j + 1) / 2 * 2 + 1)
            if (k % j == 0) {
                put(j);
                k /= j;
            }
    }
    for (int i = squares - 1; i >= 0; --i) put(i < kMaxFactors ? g_factors[i] : 0);
    if (kt) *kt = squares;
    return count;
}

const int* FftFactorList()
{
    return g_factors;
}

void FftFreeWorkspace(FftWorkspace* ws)
{
    if (!ws) return;
    ws->spaceAllocated = 0;
    ws->maxPermAllocated = 0;
    for (float** t : {&ws->tmp0, &ws->tmp1, &ws->tmp2, &ws->tmp3}) {
        FreeWorking(*t);
        *t = nullptr;
    }
    FreeWorking(ws->perm);
    ws->perm = nullptr;
    FftPlanCacheFree(ws->plans);
    ws->plans = nullptr;
}

int FftRadix(FftWorkspace* ws, float* Re, float* Im, int nTotal, int nPass, int nSpan, int iSign,
             int maxFactors, int maxPerm)
{
    return radixPass(ws, Re, Im, nTotal, nPass, nSpan, iSign, maxFactors, maxPerm, fastLine);
}

int FftRadixPlain(FftWorkspace* ws, float* Re, float* Im, int nTotal, int nPass, int nSpan,
                  int iSign, int maxFactors, int maxPerm)
{
    return radixPass(ws, Re, Im, nTotal, nPass, nSpan, iSign, maxFactors, maxPerm, plainLine);
}

int FftN(FftWorkspace* ws, long long ndim, const int* dims, float* Re, float* Im, int iSign,
         double scaling)
{
    if (!ws) return -1;
    int count = 0, largest = 0;
    long long total = 0;
    if (!describeDims(ndim, dims, count, total, largest) || !Re || !Im || iSign == 0)
        return fail(ws);
    const int nTotal = static_cast<int>(total);

    if (!dims) {
        if (FftRadix(ws, Re, Im, nTotal, nTotal, nTotal, iSign, nTotal, nTotal) != 0) return -1;
    } else {
        int nSpan = 1;
        for (int i = 0; i < count; ++i) {
            nSpan *= dims[i];
            if (FftRadix(ws, Re, Im, nTotal, dims[i], nSpan, iSign, largest, largest) != 0)
                return -1;
        }
    }

    double factor = 0.0;
    if (!scaleFactor(scaling, nTotal, factor)) return 0;
    const long long stride = iSign < 0 ? -static_cast<long long>(iSign) : iSign;
    if (stride == 1) {
        scaleLine(Re, Im, nTotal, factor);
        return 0;
    }
    // Walks the first nTotal array entries even for strides above 1; kept on purpose, the
    // image runs scale with stride 1 and rely on nothing else.
    for (long long i = 0; i < nTotal; i += stride) {
        Re[i] = static_cast<float>(Re[i] * factor);
        Im[i] = static_cast<float>(Im[i] * factor);
    }
    return 0;
}

int FftLinesPrepare(FftWorkspace* ws, int n, int iSign)
{
    if (!ws) return -1;
    if (n < 1 || (iSign != 1 && iSign != -1)) return fail(ws);
    if (n < 2) return 0;
    // What every FftN call on one line of n checks, done once for all of them.
    if (!growWorkspace(ws, n, n) || !factorsFit(n, n, n)) return fail(ws);
    return 0;
}

int FftLinesRun(FftWorkspace* ws, int n, int iSign, double scaling, float* re, float* im,
                long long lineStep, int count)
{
    if (!ws) return -1;
    if (n < 1 || (iSign != 1 && iSign != -1) || !re || !im || count < 0) return fail(ws);
    FftPlan* plan = nullptr;
    if (n >= 2 && count > 0) {
        plan = FftPlanGet(ws->plans, n, iSign);
        if (!plan) return fail(ws);
    }
    double factor = 0.0;
    const bool scale = scaleFactor(scaling, n, factor);
    for (int i = 0; i < count; ++i) {
        float* r = re + i * lineStep;
        float* m = im + i * lineStep;
        if (plan) FftPlanRun(plan, r, m, 1);
        if (scale) scaleLine(r, m, n, factor);
    }
    return 0;
}
