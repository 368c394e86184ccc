// Ordered map and set, growable array. None locks itself: the owner guards it.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "RefCount.h"
#include "SString.h"

namespace Tarvik500 {

// The order of a key type is fixed by its type.
template <class K>
struct SIKeyOrder {
    bool operator()(const K& a, const K& b) const { return a < b; }
};
template <class CharT, int Kind>
struct SIKeyOrder<SString_t<CharT, Kind>> {
    bool operator()(const SString_t<CharT, Kind>& a, const SString_t<CharT, Kind>& b) const {
        return a.compareFast(b) < 0;
    }
};
template <>
struct SIKeyOrder<SWCharString> {
    bool operator()(const SWCharString& a, const SWCharString& b) const { return a.compareFast(b) < 0; }
};
// Also compares with a bare address, so that a pointer can be looked up
// without touching what it points to.
template <class T>
struct SIKeyOrder<CSmartRefCountPtr<T>> {
    using is_transparent = void;
    bool operator()(const CSmartRefCountPtr<T>& a, const CSmartRefCountPtr<T>& b) const {
        return std::less<const T*>()(a.get(), b.get());
    }
    bool operator()(const CSmartRefCountPtr<T>& a, const T* b) const { return std::less<const T*>()(a.get(), b); }
    bool operator()(const T* a, const CSmartRefCountPtr<T>& b) const { return std::less<const T*>()(a, b.get()); }
};
template <class T>
struct SIKeyOrder<T*> {
    bool operator()(const T* a, const T* b) const { return std::less<const T*>()(a, b); }
};

template <class K, class V>
class SIMap {
    using Store = std::map<K, V, SIKeyOrder<K>>;

public:
    // Walks in key order; from the last element backwards when asked.
    class Iterator {
    public:
        explicit Iterator(const SIMap& i_map, bool i_bFromLast = false)
            : m_pStore(&i_map.m_store), m_bBackwards(i_bFromLast) {
            if (i_bFromLast) {
                m_it = m_pStore->empty() ? m_pStore->end() : std::prev(m_pStore->end());
            } else {
                m_it = m_pStore->begin();
            }
        }
        // Forwards from the first key above i_after, whether or not i_after is there.
        static Iterator After(const SIMap& i_map, const K& i_after) {
            Iterator itr(i_map);
            itr.m_it = itr.m_pStore->upper_bound(i_after);
            return itr;
        }
        bool isAtEnd() const { return m_it == m_pStore->end(); }
        Iterator& operator++() {
            if (m_bBackwards) {
                m_it = m_it == m_pStore->begin() ? m_pStore->end() : std::prev(m_it);
            } else {
                ++m_it;
            }
            return *this;
        }
        const K& key() const { return m_it->first; }
        const V& value() const { return m_it->second; }

    private:
        const Store* m_pStore;
        typename Store::const_iterator m_it;
        bool m_bBackwards;
    };

    virtual ~SIMap() = default;

    bool Lookup(const K& i_key, V& o_value) const {
        auto it = m_store.find(i_key);
        if (it == m_store.end()) {
            return false;
        }
        o_value = it->second;
        return true;
    }
    // Pointer to the stored value, or null; valid until the entry goes.
    const V* Find(const K& i_key) const {
        auto it = m_store.find(i_key);
        return it == m_store.end() ? nullptr : &it->second;
    }
    void SetAt(const K& i_key, const V& i_value) { m_store.insert_or_assign(i_key, i_value); }
    bool RemoveKey(const K& i_key) { return m_store.erase(i_key) != 0; }
    uint64_t GetCount() const { return m_store.size(); }
    bool IsEmpty() const { return m_store.empty(); }
    void RemoveAll() { m_store.clear(); }

private:
    Store m_store;
};

template <class T>
class SISet {
    using Store = std::set<T, SIKeyOrder<T>>;

public:
    class Iterator {
    public:
        explicit Iterator(const SISet& i_set) : m_pStore(&i_set.m_store), m_it(i_set.m_store.begin()) {}
        bool isAtEnd() const { return m_it == m_pStore->end(); }
        Iterator& operator++() {
            ++m_it;
            return *this;
        }
        const T& value() const { return *m_it; }

    private:
        const Store* m_pStore;
        typename Store::const_iterator m_it;
    };

    virtual ~SISet() = default;

    bool Add(const T& i_value) { return m_store.insert(i_value).second; }
    bool Contains(const T& i_value) const { return m_store.find(i_value) != m_store.end(); }
    // The stored element equal to a key of another type, or null; for key orders that allow it.
    template <class K>
    const T* Find(const K& i_key) const {
        auto it = m_store.find(i_key);
        return it == m_store.end() ? nullptr : &*it;
    }
    bool Remove(const T& i_value) { return m_store.erase(i_value) != 0; }
    uint64_t GetCount() const { return m_store.size(); }
    bool IsEmpty() const { return m_store.empty(); }
    void RemoveAll() { m_store.clear(); }

private:
    Store m_store;
};

template <class T>
class SIArray {
public:
    virtual ~SIArray() = default;

    int64_t GetSize() const { return static_cast<int64_t>(m_items.size()); }
    void SetSize(int64_t i_nSize, int64_t i_nGrowBy = -1) {
        if (i_nGrowBy > 0) {
            m_items.reserve(static_cast<size_t>(i_nSize + i_nGrowBy));
        }
        m_items.resize(static_cast<size_t>(i_nSize < 0 ? 0 : i_nSize));
    }
    T& operator[](int64_t i) { return m_items[static_cast<size_t>(i)]; }
    const T& operator[](int64_t i) const { return m_items[static_cast<size_t>(i)]; }
    void Add(const T& i_value) { m_items.push_back(i_value); }
    void RemoveAll() { m_items.clear(); }

private:
    std::vector<T> m_items;
};

}  // namespace Tarvik500
