// How each platform family reaches its live implementation: the port's own,
// unless a test has put a fake in force for the whole process.
#pragma once

#include <atomic>

namespace ostrel::platform {

template <class Api>
class Seam {
public:
    static Api& Get(Api& (*i_pPort)()) {
        Api* pOverride = s_pOverride.load(std::memory_order_acquire);
        return pOverride != nullptr ? *pOverride : i_pPort();
    }
    static Api* Exchange(Api* i_pApi) { return s_pOverride.exchange(i_pApi, std::memory_order_acq_rel); }

private:
    static inline std::atomic<Api*> s_pOverride{nullptr};
};

// Puts a fake in force for its lifetime; nests, and must end in reverse order.
template <class Api>
class ScopedOverride {
public:
    explicit ScopedOverride(Api& i_fake) : m_pPrevious(Seam<Api>::Exchange(&i_fake)) {}
    ~ScopedOverride() { Seam<Api>::Exchange(m_pPrevious); }
    ScopedOverride(const ScopedOverride&) = delete;
    ScopedOverride& operator=(const ScopedOverride&) = delete;

private:
    Api* m_pPrevious;
};

}  // namespace ostrel::platform
