#pragma once
#include <atomic>

namespace OrvUtility {

// Intrusive reference count shared by every host object; the last Release deletes.
class CRef {
public:
    CRef() = default;
    CRef(const CRef&) : m_nRef(0) {}
    CRef& operator=(const CRef&) { return *this; }
    virtual ~CRef();

    long AddRef() const { return ++m_nRef; }
    long Release() const
    {
        const long n = --m_nRef;
        if (n == 0)
            delete this;
        return n;
    }
    long RefCount() const { return m_nRef.load(); }

private:
    mutable std::atomic<long> m_nRef{0};
};

// Handle that holds one reference; copyable, movable, null-testable.
template <class T>
class _ptr_t {
public:
    _ptr_t() = default;
    _ptr_t(std::nullptr_t) {}
    _ptr_t(T* p) : m_p(p) { if (m_p) m_p->AddRef(); }
    _ptr_t(const _ptr_t& o) : _ptr_t(o.m_p) {}
    _ptr_t(_ptr_t&& o) noexcept : m_p(o.m_p) { o.m_p = nullptr; }
    template <class U>
    _ptr_t(const _ptr_t<U>& o) : _ptr_t(static_cast<T*>(o.get())) {}
    ~_ptr_t() { reset(); }

    _ptr_t& operator=(_ptr_t o) noexcept
    {
        std::swap(m_p, o.m_p);
        return *this;
    }

    void reset()
    {
        if (T* p = m_p) {
            m_p = nullptr;
            p->Release();
        }
    }
    T* get() const { return m_p; }
    T* operator->() const { return m_p; }
    T& operator*() const { return *m_p; }
    explicit operator bool() const { return m_p != nullptr; }
    bool operator==(const _ptr_t& o) const { return m_p == o.m_p; }

private:
    T* m_p = nullptr;
};

// The handle's equivalent of dynamic_cast: null when the object is of another type.
template <class T, class U>
_ptr_t<T> dynamic_ptr_cast(const _ptr_t<U>& p)
{
    return _ptr_t<T>(dynamic_cast<T*>(p.get()));
}

} // namespace OrvUtility
