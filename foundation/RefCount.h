// Intrusive reference counting: a new object stands at count 1, owned by its maker.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tarvik500 {

class CRefCount {
public:
    CRefCount() noexcept : m_nRefCount(1) {}
    CRefCount(const CRefCount&) = delete;
    CRefCount& operator=(const CRefCount&) = delete;

    virtual int32_t addRef() const noexcept { return m_nRefCount.fetch_add(1, std::memory_order_relaxed) + 1; }
    virtual int32_t release() const noexcept {
        const int32_t nCount = m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (nCount == 0) {
            delete this;
        }
        return nCount;
    }

protected:
    virtual ~CRefCount() = default;
    // For constructors that fail after the base is built: nothing is outstanding then.
    void resetRefCount() noexcept { m_nRefCount.store(0, std::memory_order_relaxed); }

private:
    mutable std::atomic<int32_t> m_nRefCount;
};

template <class T>
class CSmartRefCountPtr {
public:
    CSmartRefCountPtr() noexcept = default;
    CSmartRefCountPtr(std::nullptr_t) noexcept {}
    // Adopts the count of a fresh object: no addRef. Explicit, so that a pointer some other owner
    // holds is never adopted by accident (one release too many).
    explicit CSmartRefCountPtr(T* i_pFresh) noexcept : m_p(i_pFresh) {}
    CSmartRefCountPtr(const CSmartRefCountPtr& i_other) noexcept : m_p(i_other.m_p) {
        if (m_p != nullptr) {
            m_p->addRef();
        }
    }
    template <class U>
    CSmartRefCountPtr(const CSmartRefCountPtr<U>& i_other) noexcept : m_p(i_other.get()) {
        if (m_p != nullptr) {
            m_p->addRef();
        }
    }
    CSmartRefCountPtr(CSmartRefCountPtr&& i_other) noexcept : m_p(i_other.m_p) { i_other.m_p = nullptr; }
    ~CSmartRefCountPtr() {
        if (m_p != nullptr) {
            m_p->release();
        }
    }

    CSmartRefCountPtr& operator=(const CSmartRefCountPtr& i_other) noexcept {
        if (m_p != i_other.m_p) {
            T* pOld = m_p;
            m_p = i_other.m_p;
            if (m_p != nullptr) {
                m_p->addRef();
            }
            if (pOld != nullptr) {
                pOld->release();
            }
        }
        return *this;
    }
    CSmartRefCountPtr& operator=(CSmartRefCountPtr&& i_other) noexcept {
        if (this != &i_other) {
            T* pOld = m_p;
            m_p = i_other.m_p;
            i_other.m_p = nullptr;
            if (pOld != nullptr) {
                pOld->release();
            }
        }
        return *this;
    }
    CSmartRefCountPtr& operator=(std::nullptr_t) noexcept {
        T* pOld = m_p;
        m_p = nullptr;
        if (pOld != nullptr) {
            pOld->release();
        }
        return *this;
    }

    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    operator T*() const noexcept { return m_p; }
    T* get() const noexcept { return m_p; }

    // Run-time checked view as a concrete class; null for the wrong class.
    template <class U>
    U* as() const noexcept {
        return dynamic_cast<U*>(m_p);
    }

private:
    T* m_p = nullptr;
};

}  // namespace Tarvik500
