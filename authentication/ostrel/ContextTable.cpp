#include "ContextTable.h"

#include <cstring>
#include <new>

namespace ostrel {

size_t ContextTable::Seek(uint64_t i_nMixed) const {
    size_t i = Home(i_nMixed);
    while (i < m_nSize && m_pSlots[i].nMixed != 0 && m_pSlots[i].nMixed < i_nMixed) {
        ++i;
    }
    return i;
}

StaticToken* ContextTable::Find(uint64_t i_nMixed) const {
    const size_t i = Seek(i_nMixed);
    return i < m_nSize && m_pSlots[i].nMixed == i_nMixed ? m_pSlots[i].pToken : nullptr;
}

// Lays the entries out again in a table of 2^i_nBits places, in the same order.
void ContextTable::Resize(unsigned i_nBits) {
    for (;; ++i_nBits) {
        const size_t nSize = (size_t{1} << i_nBits) + kSpill;
        std::unique_ptr<Entry[]> pSlots(new Entry[nSize]);
        size_t nNext = 0;
        bool bFits = true;
        for (size_t i = 0; i < m_nSize && bFits; ++i) {
            if (m_pSlots[i].nMixed != 0) {
                const size_t nHome = static_cast<size_t>(m_pSlots[i].nMixed >> (64 - i_nBits));
                nNext = nHome > nNext ? nHome : nNext;
                bFits = nNext < nSize;
                if (bFits) {
                    pSlots[nNext++] = m_pSlots[i];
                }
            }
        }
        if (bFits) {
            m_pSlots = std::move(pSlots);
            m_nSize = nSize;
            m_nBits = i_nBits;
            return;
        }
    }
}

StaticToken* ContextTable::Put(uint64_t i_nMixed, StaticToken* i_pToken) {
    for (;;) {
        size_t i = Seek(i_nMixed);
        if (i < m_nSize && m_pSlots[i].nMixed == i_nMixed) {
            StaticToken* pOld = m_pSlots[i].pToken;
            m_pSlots[i].pToken = i_pToken;
            return pOld;
        }
        // At most three quarters full, so that runs stay short.
        size_t nFree = i;
        while (nFree < m_nSize && m_pSlots[nFree].nMixed != 0) {
            ++nFree;
        }
        if (nFree == m_nSize || 4 * (m_nCount + 1) > 3 * (m_nSize - kSpill)) {
            Resize(m_nBits == 0 ? kMinBits : m_nBits + 1);
            continue;
        }
        std::memmove(&m_pSlots[i + 1], &m_pSlots[i], (nFree - i) * sizeof(Entry));
        m_pSlots[i] = Entry{i_nMixed, i_pToken};
        ++m_nCount;
        return nullptr;
    }
}

StaticToken* ContextTable::Take(uint64_t i_nMixed) {
    size_t nHole = Seek(i_nMixed);
    if (nHole == m_nSize || m_pSlots[nHole].nMixed != i_nMixed) {
        return nullptr;
    }
    StaticToken* pToken = m_pSlots[nHole].pToken;
    // Those behind it move up one while they stay at or after their own place.
    while (nHole + 1 < m_nSize && m_pSlots[nHole + 1].nMixed != 0 && Home(m_pSlots[nHole + 1].nMixed) <= nHole) {
        m_pSlots[nHole] = m_pSlots[nHole + 1];
        ++nHole;
    }
    m_pSlots[nHole] = Entry{};
    --m_nCount;
    // Shrinks when mostly empty. The rest may not fit in half the room (a scan
    // empties the table from the low keys up); then not again before half of it
    // has gone too. A failed allocation only leaves it large.
    if (m_nBits > kMinBits && 16 * m_nCount < m_nSize - kSpill && m_nCount < m_nShrinkBelow) {
        try {
            const unsigned nBits = m_nBits;
            Resize(m_nBits - 1);
            m_nShrinkBelow = m_nBits < nBits ? SIZE_MAX : m_nCount / 2;
        } catch (const std::bad_alloc&) {
        }
    }
    return pToken;
}

size_t ContextTable::CopyAfter(uint64_t i_nAfter, Entry* o_pEntries, size_t i_nMax) const {
    size_t nCopied = 0;
    for (size_t i = i_nAfter == 0 ? 0 : Home(i_nAfter); i < m_nSize && nCopied < i_nMax; ++i) {
        if (m_pSlots[i].nMixed > i_nAfter) {
            o_pEntries[nCopied++] = m_pSlots[i];
        }
    }
    return nCopied;
}

}  // namespace ostrel
