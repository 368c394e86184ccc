// Cached contexts by mixed key number: one array, kept in key order with gaps,
// each entry at or just after the place its key's top bits give it. Look-ups
// take a few steps whatever the size, and a walk can go on after any key it
// last saw, whatever was added, removed or moved since. No lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace ostrel {

class StaticToken;

class ContextTable {
public:
    struct Entry {
        uint64_t nMixed = 0;  // 0: free
        StaticToken* pToken = nullptr;
    };

    StaticToken* Find(uint64_t i_nMixed) const;
    // Puts the token under the key and gives back the one it replaces, if any.
    // Throws std::bad_alloc with nothing changed.
    StaticToken* Put(uint64_t i_nMixed, StaticToken* i_pToken);
    // Takes the entry out and gives back its token, or null.
    StaticToken* Take(uint64_t i_nMixed);
    // Copies up to i_nMax entries with keys above i_nAfter, in key order; the
    // count copied, fewer than i_nMax only at the end.
    size_t CopyAfter(uint64_t i_nAfter, Entry* o_pEntries, size_t i_nMax) const;
    // Empties the table; the tokens' references go to the caller, one by one.
    template <class Fn>
    void TakeAll(Fn&& i_fn) {
        std::unique_ptr<Entry[]> pSlots = std::move(m_pSlots);
        const size_t nSize = m_nSize;
        m_nSize = m_nCount = 0;
        m_nShrinkBelow = SIZE_MAX;
        m_nBits = 0;
        for (size_t i = 0; i < nSize; ++i) {
            if (pSlots[i].nMixed != 0) {
                i_fn(pSlots[i].pToken);
            }
        }
    }
    size_t GetCount() const { return m_nCount; }

private:
    static constexpr unsigned kMinBits = 4;
    static constexpr size_t kSpill = 64;  // room past the last home, so that nothing wraps

    size_t Home(uint64_t i_nMixed) const { return m_nBits == 0 ? 0 : static_cast<size_t>(i_nMixed >> (64 - m_nBits)); }
    // The first place holding this key or above it, or free.
    size_t Seek(uint64_t i_nMixed) const;
    void Resize(unsigned i_nBits);

    std::unique_ptr<Entry[]> m_pSlots;
    size_t m_nSize = 0;  // 2^m_nBits + kSpill, or 0
    size_t m_nCount = 0;
    size_t m_nShrinkBelow = SIZE_MAX;
    unsigned m_nBits = 0;
};

}  // namespace ostrel
