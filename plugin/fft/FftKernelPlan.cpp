// Fast path of the kernel: a self-sorting (Stockham) mixed-radix transform on split arrays
// with twiddles computed in double and rounded once, and Bluestein's chirp convolution for
// lengths with a large prime factor.
#include "fft/FftKernelPlan.h"
#include "frame/RasterAccess.h"

#include <cmath>
#include <cstdint>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

namespace {

constexpr int kMaxStages = 64;
// Above this prime factor the O(p^2) stage loses to a chirp convolution of about twice the length.
constexpr int kLargestDirectPrime = 61;
constexpr int kCacheSlots = 4;
constexpr std::size_t kAlign = 64;

template <class T>
struct Stage {
    int radix = 0;
    int m = 0;  // butterflies per sub-transform
    int s = 0;  // number of interleaved sub-transforms (stride)
    T* twr = nullptr;  // twiddle w^(p*k) at [(k-1)*m + p]
    T* twi = nullptr;
    T* cosT = nullptr;  // general odd radix: cos and signed sin of 2*pi*t/radix
    T* sinT = nullptr;
};

template <class T>
struct Stockham {
    int n = 0;
    int sign = 0;
    int nStages = 0;
    Stage<T> st[kMaxStages];
    T *ar = nullptr, *ai = nullptr, *br = nullptr, *bi = nullptr;  // ping-pong buffers
    T *acc[4] = {nullptr, nullptr, nullptr, nullptr};            // general radix accumulators
};

// Carves one allocation into aligned pieces; a first pass with no base only measures.
template <class T>
struct Arena {
    T* base = nullptr;
    std::size_t used = 0;
    T* take(std::size_t count)
    {
        const std::size_t per = kAlign / sizeof(T);
        T* p = base ? base + used : nullptr;
        used += (count + per - 1) / per * per;
        return p;
    }
};

void* alignedAlloc(std::size_t bytes)
{
    return AllocateWorking((bytes + kAlign - 1) / kAlign * kAlign, kAlign);
}

// Plans and the cache come from the working allocation like every buffer of a run.
template <class T>
T* newWorking()
{
    void* p = AllocateWorking(sizeof(T), alignof(T) > alignof(std::max_align_t) ? alignof(T) : 0);
    return p ? new (p) T : nullptr;
}

template <class T>
void deleteWorking(T* p)
{
    if (!p) return;
    p->~T();
    FreeWorking(p);
}

// ---------------------------------------------------------------------------------------
// Radix selection

int smallestPrimeFactor(int n)
{
    if (n % 2 == 0) return 2;
    for (int p = 3; static_cast<long long>(p) * p <= n; p += 2)
        if (n % p == 0) return p;
    return n;
}

// Radices in the order the stages run, or false when a prime factor is too large for a
// direct stage. Eights go first so that only the first stage has a stride below a vector.
bool chooseRadices(int n, int* radices, int& count)
{
    int twos = 0, threes = 0, fives = 0;
    int others[32];
    int nOthers = 0;
    while (n > 1) {
        const int p = smallestPrimeFactor(n);
        if (p > kLargestDirectPrime) return false;
        n /= p;
        if (p == 2) ++twos;
        else if (p == 3) ++threes;
        else if (p == 5) ++fives;
        else others[nOthers++] = p;
    }
    count = 0;
    int eights = twos / 3;
    const int rest = twos % 3;
    // 2^(3k+1) runs as ...8,4,4 rather than ...8,2: same pass count, fewer flops.
    const bool twoFours = rest == 1 && eights > 0;
    if (twoFours) --eights;
    for (int i = 0; i < eights; ++i) radices[count++] = 8;
    if (twoFours) {
        radices[count++] = 4;
        radices[count++] = 4;
    } else if (rest == 2) {
        radices[count++] = 4;
    } else if (rest == 1) {
        radices[count++] = 2;
    }
    for (int i = 0; i < fives; ++i) radices[count++] = 5;
    for (int i = 0; i < threes; ++i) radices[count++] = 3;
    for (int i = 0; i < nOthers; ++i) radices[count++] = others[i];
    return true;
}

// exp(sign * 2*pi*i * num/den) in double, with the argument reduced exactly first.
void unitRoot(long long num, long long den, int sign, double& c, double& s)
{
    num %= den;
    if (num < 0) num += den;
    const double a = 2.0 * M_PI * static_cast<double>(num) / static_cast<double>(den);
    c = std::cos(a);
    s = sign * std::sin(a);
}

template <class T>
bool layoutStockham(Stockham<T>& P, int n, int sign, Arena<T>& arena)
{
    int radices[kMaxStages];
    int count = 0;
    if (!chooseRadices(n, radices, count)) return false;
    P.n = n;
    P.sign = sign;
    P.nStages = count;
    int s = 1;
    int maxGeneric = 0;
    for (int i = 0; i < count; ++i) {
        Stage<T>& st = P.st[i];
        st.radix = radices[i];
        st.s = s;
        st.m = n / (s * st.radix);
        const std::size_t nTw = static_cast<std::size_t>(st.radix - 1) * st.m;
        st.twr = arena.take(nTw);
        st.twi = arena.take(nTw);
        if (st.twr) {
            const long long len = static_cast<long long>(st.radix) * st.m;
            for (int k = 1; k < st.radix; ++k)
                for (int p = 0; p < st.m; ++p) {
                    double c, sn;
                    unitRoot(static_cast<long long>(p) * k, len, sign, c, sn);
                    st.twr[(k - 1) * st.m + p] = static_cast<T>(c);
                    st.twi[(k - 1) * st.m + p] = static_cast<T>(sn);
                }
        }
        if (st.radix > 5 && st.radix != 8) {
            st.cosT = arena.take(st.radix);
            st.sinT = arena.take(st.radix);
            if (st.cosT)
                for (int t = 0; t < st.radix; ++t) {
                    double c, sn;
                    unitRoot(t, st.radix, sign, c, sn);
                    st.cosT[t] = static_cast<T>(c);
                    st.sinT[t] = static_cast<T>(sn);
                }
            const int len = s == 1 ? st.m : s;
            if (len > maxGeneric) maxGeneric = len;
        }
        s *= st.radix;
    }
    P.ar = arena.take(n);
    P.ai = arena.take(n);
    P.br = arena.take(n);
    P.bi = arena.take(n);
    for (T*& a : P.acc) a = maxGeneric ? arena.take(maxGeneric) : nullptr;
    return true;
}

// ---------------------------------------------------------------------------------------
// Butterflies: out_k = sum_j a_j exp(S*2*pi*i*j*k/R), in place on a[] (S = +1 or -1).
// E is a scalar or a vector of floats, K the scalar type of the constants.

template <int S, class E>
inline __attribute__((always_inline)) E sgn(E x)
{
    if constexpr (S > 0) return x;
    else return -x;
}

template <class E, class K, int R, int S>
struct Butterfly;

template <class E, class K, int S>
struct Butterfly<E, K, 2, S> {
    static inline __attribute__((always_inline)) void run(E* r, E* i)
    {
        const E r0 = r[0], i0 = i[0];
        r[0] = r0 + r[1];
        i[0] = i0 + i[1];
        r[1] = r0 - r[1];
        i[1] = i0 - i[1];
    }
};

template <class E, class K, int S>
struct Butterfly<E, K, 3, S> {
    static inline __attribute__((always_inline)) void run(E* r, E* i)
    {
        const K h = static_cast<K>(S * 0.86602540378443864676);
        const K half = static_cast<K>(0.5);
        const E tr = r[1] + r[2], ti = i[1] + i[2];
        const E mr = r[0] - half * tr, mi = i[0] - half * ti;
        const E dr = h * (r[1] - r[2]), di = h * (i[1] - i[2]);
        r[0] += tr;
        i[0] += ti;
        r[1] = mr - di;
        i[1] = mi + dr;
        r[2] = mr + di;
        i[2] = mi - dr;
    }
};

template <class E, class K, int S>
struct Butterfly<E, K, 4, S> {
    static inline __attribute__((always_inline)) void run(E* r, E* i)
    {
        const E t0r = r[0] + r[2], t0i = i[0] + i[2];
        const E t1r = r[0] - r[2], t1i = i[0] - i[2];
        const E t2r = r[1] + r[3], t2i = i[1] + i[3];
        const E t3r = r[1] - r[3], t3i = i[1] - i[3];
        r[0] = t0r + t2r;
        i[0] = t0i + t2i;
        r[2] = t0r - t2r;
        i[2] = t0i - t2i;
        // S*i*t3 = (-S*t3i, S*t3r)
        r[1] = t1r - sgn<S>(t3i);
        i[1] = t1i + sgn<S>(t3r);
        r[3] = t1r + sgn<S>(t3i);
        i[3] = t1i - sgn<S>(t3r);
    }
};

template <class E, class K, int S>
struct Butterfly<E, K, 5, S> {
    static inline __attribute__((always_inline)) void run(E* r, E* i)
    {
        const K c1 = static_cast<K>(0.30901699437494742410);   // cos 72
        const K c2 = static_cast<K>(-0.80901699437494742410);  // cos 144
        const K s1 = static_cast<K>(S * 0.95105651629515357212);
        const K s2 = static_cast<K>(S * 0.58778525229247312917);
        const E t1r = r[1] + r[4], t1i = i[1] + i[4];
        const E t2r = r[2] + r[3], t2i = i[2] + i[3];
        const E d1r = r[1] - r[4], d1i = i[1] - i[4];
        const E d2r = r[2] - r[3], d2i = i[2] - i[3];
        const E m1r = r[0] + c1 * t1r + c2 * t2r, m1i = i[0] + c1 * t1i + c2 * t2i;
        const E m2r = r[0] + c2 * t1r + c1 * t2r, m2i = i[0] + c2 * t1i + c1 * t2i;
        // n1 = i*(s1*d1 + s2*d2), n2 = i*(s2*d1 - s1*d2)
        const E n1r = -(s1 * d1i + s2 * d2i), n1i = s1 * d1r + s2 * d2r;
        const E n2r = -(s2 * d1i - s1 * d2i), n2i = s2 * d1r - s1 * d2r;
        r[0] += t1r + t2r;
        i[0] += t1i + t2i;
        r[1] = m1r + n1r;
        i[1] = m1i + n1i;
        r[4] = m1r - n1r;
        i[4] = m1i - n1i;
        r[2] = m2r + n2r;
        i[2] = m2i + n2i;
        r[3] = m2r - n2r;
        i[3] = m2i - n2i;
    }
};

template <class E, class K, int S>
struct Butterfly<E, K, 8, S> {
    static inline __attribute__((always_inline)) void run(E* r, E* i)
    {
        E er[4] = {r[0], r[2], r[4], r[6]}, ei[4] = {i[0], i[2], i[4], i[6]};
        E orr[4] = {r[1], r[3], r[5], r[7]}, oi[4] = {i[1], i[3], i[5], i[7]};
        Butterfly<E, K, 4, S>::run(er, ei);
        Butterfly<E, K, 4, S>::run(orr, oi);
        const K h = static_cast<K>(0.70710678118654752440);
        // w8 = (1 + S*i)/sqrt2, w8^2 = S*i, w8^3 = (-1 + S*i)/sqrt2
        const E o1r = h * (orr[1] - sgn<S>(oi[1])), o1i = h * (oi[1] + sgn<S>(orr[1]));
        const E o2r = -sgn<S>(oi[2]), o2i = sgn<S>(orr[2]);
        const E o3r = -h * (orr[3] + sgn<S>(oi[3])), o3i = h * (sgn<S>(orr[3]) - oi[3]);
        r[0] = er[0] + orr[0];
        i[0] = ei[0] + oi[0];
        r[4] = er[0] - orr[0];
        i[4] = ei[0] - oi[0];
        r[1] = er[1] + o1r;
        i[1] = ei[1] + o1i;
        r[5] = er[1] - o1r;
        i[5] = ei[1] - o1i;
        r[2] = er[2] + o2r;
        i[2] = ei[2] + o2i;
        r[6] = er[2] - o2r;
        i[6] = ei[2] - o2i;
        r[3] = er[3] + o3r;
        i[3] = ei[3] + o3i;
        r[7] = er[3] - o3r;
        i[7] = ei[3] - o3i;
    }
};

// ---------------------------------------------------------------------------------------
// Stage loops. The vectorised loop runs over q (the interleaved sub-transforms) when the
// stride is wide, and over p (the butterflies, twiddles varying) in the first stage.

// Q form: one p, len = s consecutive q; twiddles fixed (twr points at p, step m per k).
// P form (first stage, s == 1): len = m consecutive p; outputs interleaved by R.
template <class T, int R, int S, bool P, bool TW>
inline __attribute__((always_inline)) void radixLoop(int len, const T* __restrict xr,
                                                     const T* __restrict xi, std::size_t jstr,
                                                     T* __restrict yr, T* __restrict yi,
                                                     std::size_t kstr, const T* __restrict twr,
                                                     const T* __restrict twi, std::size_t twk)
{
    for (int q = 0; q < len; ++q) {
        T ar[R], ai[R];
        for (int j = 0; j < R; ++j) {
            ar[j] = xr[q + j * jstr];
            ai[j] = xi[q + j * jstr];
        }
        Butterfly<T, T, R, S>::run(ar, ai);
        const std::size_t o = P ? static_cast<std::size_t>(q) * R : static_cast<std::size_t>(q);
        yr[o] = ar[0];
        yi[o] = ai[0];
        for (int k = 1; k < R; ++k) {
            if (TW) {
                const std::size_t t = (k - 1) * twk + (P ? q : 0);
                const T wr = twr[t], wi = twi[t];
                yr[o + k * kstr] = ar[k] * wr - ai[k] * wi;
                yi[o + k * kstr] = ar[k] * wi + ai[k] * wr;
            } else {
                yr[o + k * kstr] = ar[k];
                yi[o + k * kstr] = ai[k];
            }
        }
    }
}

// Explicit 8-lane vectors for the float path: one AVX register on the AVX2 clone, a pair of
// SSE registers on the baseline.
using V = float __attribute__((vector_size(32)));
constexpr int kLanes = 8;

inline __attribute__((always_inline)) V loadV(const float* p)
{
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline __attribute__((always_inline)) void storeV(float* p, V v)
{
    std::memcpy(p, &v, sizeof v);
}

inline __attribute__((always_inline)) V zipLo(V a, V b)
{
    return __builtin_shufflevector(a, b, 0, 8, 1, 9, 2, 10, 3, 11);
}

inline __attribute__((always_inline)) V zipHi(V a, V b)
{
    return __builtin_shufflevector(a, b, 4, 12, 5, 13, 6, 14, 7, 15);
}

// Turns R vectors v[k][i] into R consecutive vectors holding element R*i + k = v[k][i].
template <int R>
inline __attribute__((always_inline)) void interleave(V* v)
{
    for (int round = 1; round < R; round *= 2) {
        V t[R];
        for (int k = 0; k < R / 2; ++k) {
            t[2 * k] = zipLo(v[k], v[k + R / 2]);
            t[2 * k + 1] = zipHi(v[k], v[k + R / 2]);
        }
        for (int k = 0; k < R; ++k) v[k] = t[k];
    }
}

// Q form on floats, eight sub-transforms at a time; the remainder goes through the scalar loop.
template <int R, int S, bool TW>
inline __attribute__((always_inline)) void qLoopFloat(int len, const float* xr, const float* xi,
                                                      std::size_t jstr, float* yr, float* yi,
                                                      std::size_t kstr, const float* twr,
                                                      const float* twi, std::size_t twk)
{
    float wr[R], wi[R];
    if (TW)
        for (int k = 1; k < R; ++k) {
            wr[k] = twr[(k - 1) * twk];
            wi[k] = twi[(k - 1) * twk];
        }
    int q = 0;
    for (; q + kLanes <= len; q += kLanes) {
        V ar[R], ai[R];
        for (int j = 0; j < R; ++j) {
            ar[j] = loadV(xr + q + j * jstr);
            ai[j] = loadV(xi + q + j * jstr);
        }
        Butterfly<V, float, R, S>::run(ar, ai);
        storeV(yr + q, ar[0]);
        storeV(yi + q, ai[0]);
        for (int k = 1; k < R; ++k) {
            if (TW) {
                storeV(yr + q + k * kstr, ar[k] * wr[k] - ai[k] * wi[k]);
                storeV(yi + q + k * kstr, ar[k] * wi[k] + ai[k] * wr[k]);
            } else {
                storeV(yr + q + k * kstr, ar[k]);
                storeV(yi + q + k * kstr, ai[k]);
            }
        }
    }
    if (q < len)
        radixLoop<float, R, S, false, TW>(len - q, xr + q, xi + q, jstr, yr + q, yi + q, kstr, twr,
                                          twi, twk);
}

// First stage (stride 1) on floats for R = 2, 4, 8: eight butterflies at a time, their
// outputs interleaved in registers so every store is a full vector.
template <int R, int S>
inline __attribute__((always_inline)) void pLoopFloat(int m, const float* xr, const float* xi,
                                                      float* yr, float* yi, const float* twr,
                                                      const float* twi)
{
    int p = 0;
    for (; p + kLanes <= m; p += kLanes) {
        V ar[R], ai[R];
        for (int j = 0; j < R; ++j) {
            ar[j] = loadV(xr + p + j * m);
            ai[j] = loadV(xi + p + j * m);
        }
        Butterfly<V, float, R, S>::run(ar, ai);
        for (int k = 1; k < R; ++k) {
            const V wr = loadV(twr + (k - 1) * m + p), wi = loadV(twi + (k - 1) * m + p);
            const V tr = ar[k] * wr - ai[k] * wi;
            ai[k] = ar[k] * wi + ai[k] * wr;
            ar[k] = tr;
        }
        interleave<R>(ar);
        interleave<R>(ai);
        for (int k = 0; k < R; ++k) {
            storeV(yr + R * p + kLanes * k, ar[k]);
            storeV(yi + R * p + kLanes * k, ai[k]);
        }
    }
    if (p < m)
        radixLoop<float, R, S, true, true>(m - p, xr + p, xi + p, m, yr + R * p, yi + R * p, 1,
                                           twr + p, twi + p, m);
}

template <class T, int R, int S>
inline __attribute__((always_inline)) void radixStage(const Stage<T>& st, const T* xr,
                                                      const T* xi, T* yr, T* yi)
{
    const int m = st.m, s = st.s;
    const std::size_t sm = static_cast<std::size_t>(s) * m;
    constexpr bool vec = std::is_same_v<T, float>;
    if (s == 1) {
        if constexpr (vec && (R == 2 || R == 4 || R == 8))
            pLoopFloat<R, S>(m, xr, xi, yr, yi, st.twr, st.twi);
        else
            radixLoop<T, R, S, true, true>(m, xr, xi, m, yr, yi, 1, st.twr, st.twi, m);
        return;
    }
    if constexpr (vec)
        qLoopFloat<R, S, false>(s, xr, xi, sm, yr, yi, s, nullptr, nullptr, 0);
    else
        radixLoop<T, R, S, false, false>(s, xr, xi, sm, yr, yi, s, nullptr, nullptr, 0);
    for (int p = 1; p < m; ++p) {
        const std::size_t in = static_cast<std::size_t>(s) * p;
        const std::size_t out = in * R;
        if constexpr (vec)
            qLoopFloat<R, S, true>(s, xr + in, xi + in, sm, yr + out, yi + out, s, st.twr + p,
                                   st.twi + p, m);
        else
            radixLoop<T, R, S, false, true>(s, xr + in, xi + in, sm, yr + out, yi + out, s,
                                            st.twr + p, st.twi + p, m);
    }
}

// General odd radix: the symmetric pairs a_j +- a_(R-j) share one cosine and one sine.
template <class T, bool P>
inline __attribute__((always_inline)) void genericLoop(const Stockham<T>& plan, const Stage<T>& st,
                                                       int len, const T* xr, const T* xi,
                                                       std::size_t jstr, T* yr, T* yi,
                                                       std::size_t kstr, std::size_t twOff,
                                                       bool twiddle)
{
    const int R = st.radix, h = R / 2, m = st.m;
    T* __restrict c0 = plan.acc[0];
    T* __restrict c1 = plan.acc[1];
    T* __restrict c2 = plan.acc[2];
    T* __restrict c3 = plan.acc[3];
    const std::size_t ostep = P ? R : 1;
    for (int q = 0; q < len; ++q) {
        c0[q] = xr[q];
        c1[q] = xi[q];
    }
    for (int j = 1; j < R; ++j)
        for (int q = 0; q < len; ++q) {
            c0[q] += xr[q + j * jstr];
            c1[q] += xi[q + j * jstr];
        }
    for (int q = 0; q < len; ++q) {
        yr[q * ostep] = c0[q];
        yi[q * ostep] = c1[q];
    }
    for (int k = 1; k <= h; ++k) {
        for (int q = 0; q < len; ++q) {
            c0[q] = xr[q];
            c1[q] = xi[q];
            c2[q] = 0;
            c3[q] = 0;
        }
        for (int j = 1; j <= h; ++j) {
            const int t = static_cast<int>((static_cast<long long>(j) * k) % R);
            const T c = st.cosT[t], sn = st.sinT[t];
            const T* __restrict ur = xr + j * jstr;
            const T* __restrict ui = xi + j * jstr;
            const T* __restrict vr = xr + (R - j) * jstr;
            const T* __restrict vi = xi + (R - j) * jstr;
            for (int q = 0; q < len; ++q) {
                c0[q] += c * (ur[q] + vr[q]);
                c1[q] += c * (ui[q] + vi[q]);
                c2[q] += sn * (ur[q] - vr[q]);
                c3[q] += sn * (ui[q] - vi[q]);
            }
        }
        const std::size_t ka = k * kstr, kb = (R - k) * kstr;
        const T* __restrict wa_r = st.twr + (k - 1) * m + twOff;
        const T* __restrict wa_i = st.twi + (k - 1) * m + twOff;
        const T* __restrict wb_r = st.twr + (R - k - 1) * m + twOff;
        const T* __restrict wb_i = st.twi + (R - k - 1) * m + twOff;
        for (int q = 0; q < len; ++q) {
            const T pr = c0[q] - c3[q], pi = c1[q] + c2[q];
            const T nr = c0[q] + c3[q], ni = c1[q] - c2[q];
            const std::size_t o = q * ostep;
            if (!twiddle) {
                yr[o + ka] = pr;
                yi[o + ka] = pi;
                yr[o + kb] = nr;
                yi[o + kb] = ni;
            } else {
                const std::size_t w = P ? q : 0;
                yr[o + ka] = pr * wa_r[w] - pi * wa_i[w];
                yi[o + ka] = pr * wa_i[w] + pi * wa_r[w];
                yr[o + kb] = nr * wb_r[w] - ni * wb_i[w];
                yi[o + kb] = nr * wb_i[w] + ni * wb_r[w];
            }
        }
    }
}

template <class T>
inline __attribute__((always_inline)) void genericStage(const Stockham<T>& plan, const Stage<T>& st,
                                                        const T* xr, const T* xi, T* yr, T* yi)
{
    const int m = st.m, s = st.s;
    const std::size_t sm = static_cast<std::size_t>(s) * m;
    if (s == 1) {
        genericLoop<T, true>(plan, st, m, xr, xi, m, yr, yi, 1, 0, true);
        return;
    }
    for (int p = 0; p < m; ++p) {
        const std::size_t in = static_cast<std::size_t>(s) * p;
        const std::size_t out = in * st.radix;
        genericLoop<T, false>(plan, st, s, xr + in, xi + in, sm, yr + out, yi + out, s, p, p != 0);
    }
}

template <class T, int S>
inline __attribute__((always_inline)) void runStage(const Stockham<T>& plan, const Stage<T>& st,
                                                    const T* xr, const T* xi, T* yr, T* yi)
{
    switch (st.radix) {
    case 2: radixStage<T, 2, S>(st, xr, xi, yr, yi); break;
    case 3: radixStage<T, 3, S>(st, xr, xi, yr, yi); break;
    case 4: radixStage<T, 4, S>(st, xr, xi, yr, yi); break;
    case 5: radixStage<T, 5, S>(st, xr, xi, yr, yi); break;
    case 8: radixStage<T, 8, S>(st, xr, xi, yr, yi); break;
    default: genericStage<T>(plan, st, xr, xi, yr, yi); break;
    }
}

// Runs all stages from (inr, ini) to (outr, oui), which may be the same arrays; the
// intermediate passes alternate between the plan's two buffers.
template <class T>
inline __attribute__((always_inline)) void runStages(const Stockham<T>& plan, const T* inr,
                                                     const T* ini, T* outr, T* outi)
{
    const int ns = plan.nStages;
    const T *xr = inr, *xi = ini;
    for (int i = 0; i < ns; ++i) {
        const bool last = i == ns - 1;
        T *yr, *yi;
        if (last && outr != xr) {
            yr = outr;
            yi = outi;
        } else {
            yr = xr == plan.ar ? plan.br : plan.ar;
            yi = xr == plan.ar ? plan.bi : plan.ai;
        }
        if (plan.sign > 0) runStage<T, 1>(plan, plan.st[i], xr, xi, yr, yi);
        else runStage<T, -1>(plan, plan.st[i], xr, xi, yr, yi);
        xr = yr;
        xi = yi;
    }
    if (xr != outr) {
        std::memcpy(outr, xr, sizeof(T) * plan.n);
        std::memcpy(outi, xi, sizeof(T) * plan.n);
    }
}

// The hot float path, compiled twice and picked at load time by the CPU it runs on.
__attribute__((target_clones("arch=x86-64-v3", "default"))) void
runStagesFloat(const Stockham<float>& plan, const float* inr, const float* ini, float* outr,
               float* outi)
{
    runStages<float>(plan, inr, ini, outr, outi);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Plans and the cache

struct FftPlan {
    int n = 0;
    int sign = 0;
    bool chirp = false;       // Bluestein: core is a length-M forward transform
    Stockham<float> core;
    float *gr = nullptr, *gi = nullptr;  // gathered line for strided data
    float *cr = nullptr, *ci = nullptr;  // chirp exp(sign*i*pi*k^2/n), k < n
    float *hr = nullptr, *hi = nullptr;  // transformed conjugate chirp, divided by M
    float *wr = nullptr, *wi = nullptr;  // convolution work, length M
    void* mem = nullptr;
};

struct FftPlanCache {
    FftPlan* slot[kCacheSlots] = {};
    int next = 0;
};

namespace {

// Smallest 2^a 3^b 5^c >= need, preferring a power of two when it costs at most 10 % more.
int convolutionLength(int need)
{
    long long best = 1;
    while (best < need) best *= 2;
    const long long pow2 = best;
    for (long long a = 1; a <= pow2; a *= 2)
        for (long long b = a; b <= pow2; b *= 3)
            for (long long c = b; c <= pow2; c *= 5)
                if (c >= need && c < best) best = c;
    if (pow2 * 10 <= best * 11) best = pow2;
    return static_cast<int>(best);
}

// The transformed chirp kernel, computed through a double-precision transform.
bool fillChirpKernel(FftPlan& plan, int M)
{
    const int n = plan.n;
    Stockham<double> dp;
    Arena<double> measure;
    layoutStockham(dp, M, -1, measure);
    const std::size_t extra = 2 * ((static_cast<std::size_t>(M) + 7) / 8 * 8);
    double* mem = static_cast<double*>(alignedAlloc(sizeof(double) * (measure.used + extra)));
    if (!mem) return false;
    Arena<double> arena{mem, 0};
    layoutStockham(dp, M, -1, arena);
    double* br = arena.take(M);
    double* bi = arena.take(M);
    for (int k = 0; k < M; ++k) br[k] = bi[k] = 0.0;
    for (int k = 0; k < n; ++k) {
        double c, s;
        // conj(exp(sign*i*pi*k^2/n)) = exp(-sign*2*pi*i*(k^2 mod 2n)/(2n))
        unitRoot(static_cast<long long>(k) * k, 2LL * n, -plan.sign, c, s);
        br[k] = c;
        bi[k] = s;
        if (k) {
            br[M - k] = c;
            bi[M - k] = s;
        }
    }
    runStages<double>(dp, br, bi, br, bi);
    for (int k = 0; k < M; ++k) {
        plan.hr[k] = static_cast<float>(br[k] / M);
        plan.hi[k] = static_cast<float>(bi[k] / M);
    }
    FreeWorking(mem);
    return true;
}

void layoutPlan(FftPlan& plan, Arena<float>& arena)
{
    const int n = plan.n;
    if (!plan.chirp) {
        layoutStockham(plan.core, n, plan.sign, arena);
    } else {
        const int M = convolutionLength(2 * n - 1);
        layoutStockham(plan.core, M, -1, arena);
        plan.cr = arena.take(n);
        plan.ci = arena.take(n);
        plan.hr = arena.take(M);
        plan.hi = arena.take(M);
        plan.wr = arena.take(M);
        plan.wi = arena.take(M);
    }
    plan.gr = arena.take(n);
    plan.gi = arena.take(n);
}

FftPlan* buildPlan(int n, int sign)
{
    FftPlan* plan = newWorking<FftPlan>();
    if (!plan) return nullptr;
    plan->n = n;
    plan->sign = sign;
    int radices[kMaxStages];
    int count = 0;
    plan->chirp = !chooseRadices(n, radices, count);
    // The convolution needs about twice the length; beyond 2^30 points it cannot be indexed.
    if (plan->chirp && n > (1 << 29)) {
        deleteWorking(plan);
        return nullptr;
    }
    Arena<float> measure;
    layoutPlan(*plan, measure);
    plan->mem = alignedAlloc(sizeof(float) * measure.used);
    if (!plan->mem) {
        deleteWorking(plan);
        return nullptr;
    }
    Arena<float> arena{static_cast<float*>(plan->mem), 0};
    layoutPlan(*plan, arena);
    if (plan->chirp) {
        for (int k = 0; k < n; ++k) {
            double c, s;
            unitRoot(static_cast<long long>(k) * k, 2LL * n, sign, c, s);
            plan->cr[k] = static_cast<float>(c);
            plan->ci[k] = static_cast<float>(s);
        }
        if (!fillChirpKernel(*plan, plan->core.n)) {
            FreeWorking(plan->mem);
            deleteWorking(plan);
            return nullptr;
        }
    }
    return plan;
}

void freePlan(FftPlan* plan)
{
    if (!plan) return;
    FreeWorking(plan->mem);
    deleteWorking(plan);
}

// X_k = c_k * sum_j (x_j c_j) conj(c_(k-j)), the convolution done by two length-M transforms.
void runChirp(FftPlan& plan, float* re, float* im, std::ptrdiff_t stride)
{
    const int n = plan.n, M = plan.core.n;
    float* __restrict wr = plan.wr;
    float* __restrict wi = plan.wi;
    const float* __restrict cr = plan.cr;
    const float* __restrict ci = plan.ci;
    for (int j = 0; j < n; ++j) {
        const float xr = re[j * stride], xi = im[j * stride];
        wr[j] = xr * cr[j] - xi * ci[j];
        wi[j] = xr * ci[j] + xi * cr[j];
    }
    for (int j = n; j < M; ++j) wr[j] = wi[j] = 0.0f;
    runStagesFloat(plan.core, wr, wi, wr, wi);
    const float* __restrict hr = plan.hr;
    const float* __restrict hi = plan.hi;
    for (int k = 0; k < M; ++k) {
        // conjugated product, so the forward transform below acts as the inverse
        const float pr = wr[k] * hr[k] - wi[k] * hi[k];
        const float pi = wr[k] * hi[k] + wi[k] * hr[k];
        wr[k] = pr;
        wi[k] = -pi;
    }
    runStagesFloat(plan.core, wr, wi, wr, wi);
    for (int k = 0; k < n; ++k) {
        const float vr = wr[k], vi = -wi[k];
        re[k * stride] = vr * cr[k] - vi * ci[k];
        im[k * stride] = vr * ci[k] + vi * cr[k];
    }
}

}  // namespace

FftPlan* FftPlanGet(FftPlanCache*& cache, int n, int sign)
{
    if (!cache) {
        cache = newWorking<FftPlanCache>();
        if (!cache) return nullptr;
    }
    for (FftPlan* p : cache->slot)
        if (p && p->n == n && p->sign == sign) return p;
    FftPlan* plan = buildPlan(n, sign);
    if (!plan) return nullptr;
    FftPlan*& victim = cache->slot[cache->next];
    freePlan(victim);
    victim = plan;
    cache->next = (cache->next + 1) % kCacheSlots;
    return plan;
}

void FftPlanRun(FftPlan* plan, float* re, float* im, std::ptrdiff_t stride)
{
    if (plan->chirp) {
        runChirp(*plan, re, im, stride);
        return;
    }
    if (stride == 1) {
        runStagesFloat(plan->core, re, im, re, im);
        return;
    }
    const int n = plan->n;
    for (int j = 0; j < n; ++j) {
        plan->gr[j] = re[j * stride];
        plan->gi[j] = im[j * stride];
    }
    runStagesFloat(plan->core, plan->gr, plan->gi, plan->gr, plan->gi);
    for (int j = 0; j < n; ++j) {
        re[j * stride] = plan->gr[j];
        im[j * stride] = plan->gi[j];
    }
}

void FftPlanCacheFree(FftPlanCache* cache)
{
    if (!cache) return;
    for (FftPlan* p : cache->slot) freePlan(p);
    deleteWorking(cache);
}
