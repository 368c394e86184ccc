// Strings, reference counting, number parsing, containers and trace formatting.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Containers.h"
#include "foundation/RefCount.h"
#include "foundation/SString.h"
#include "foundation/Trace.h"

using namespace Tarvik500;

namespace {

TEST(FoundationString, CopiesKeepTheirValueWhenTheOriginalChanges) {
    SWCharString original(OSTREL_T("alpha"));
    SWCharString copy(original);
    SWCharString assigned;
    assigned = original;

    original += OSTREL_T("-beta");
    EXPECT_TRUE(copy == OSTREL_T("alpha"));
    EXPECT_TRUE(assigned == OSTREL_T("alpha"));
    EXPECT_TRUE(original == OSTREL_T("alpha-beta"));

    copy += static_cast<ostrel_char>('!');
    EXPECT_TRUE(assigned == OSTREL_T("alpha"));
    EXPECT_TRUE(copy == OSTREL_T("alpha!"));

    SWCharString empty;
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_EQ(empty.c_str()[0], 0);
    EXPECT_TRUE(SWCharString(static_cast<const ostrel_char*>(nullptr)).isEmpty());
}

TEST(FoundationString, ConcurrentCopiesOfASharedStringStayIntact) {
    const SWCharString shared(OSTREL_T("a shared key that many threads copy"));
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&shared, &mismatches] {
            for (int i = 0; i < 2000; ++i) {
                SWCharString copy(shared);
                SWCharString another = copy;
                another += OSTREL_T("+");
                if (!(copy == shared) || another.getNChars() != shared.getNChars() + 1) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_TRUE(shared == OSTREL_T("a shared key that many threads copy"));
}

TEST(FoundationString, SearchAndSplit) {
    const SWCharString text(OSTREL_T("host:1234,host2:99"));
    auto colon = text.findFirst(':');
    ASSERT_EQ(*colon, ':');
    EXPECT_TRUE(text.left(colon) == OSTREL_T("host"));
    EXPECT_TRUE(text.right(colon) == OSTREL_T(":1234,host2:99"));
    auto second = colon;
    ++second;
    EXPECT_EQ(second.find(SWCharString(OSTREL_T(":"))).position(), 15u);
    EXPECT_EQ(*text.find(SWCharString(OSTREL_T("absent"))), 0);
    EXPECT_EQ(*text.findFirst('#'), 0);

    SWCharString padded(OSTREL_T("value \t\r\n"));
    padded.trimRight();
    EXPECT_TRUE(padded == OSTREL_T("value"));
}

TEST(FoundationString, WidthConversions) {
    const ostrel_char unpairedHigh[] = {0xD800, 'x', 0};
    const ostrel_char unpairedLow[] = {'x', 0xDC00, 0};
    EXPECT_STREQ(ToAnsiString(unpairedHigh).c_str(), "?");
    EXPECT_STREQ(ToAnsiString(unpairedLow).c_str(), "?");
    EXPECT_TRUE(ToWCharString("\xC3\x28") == OSTREL_T("?"));

    const ostrel_char clef[] = {'a', 0x00E9, 0xD834, 0xDD1E, 0};
    const SAnsiString narrow = ToAnsiString(clef);
    EXPECT_STREQ(narrow.c_str(), "a\xC3\xA9\xF0\x9D\x84\x9E");
    EXPECT_TRUE(ToWCharString(narrow.c_str()) == clef);
    EXPECT_TRUE(ToWCharString("").isEmpty());
}

struct Probe : CRefCount {
    explicit Probe(int& io_nDestroyed) : m_nDestroyed(io_nDestroyed) {}
    ~Probe() override { ++m_nDestroyed; }
    int& m_nDestroyed;
};

TEST(FoundationRefCount, AFreshObjectIsAdoptedAndDestroyedOnce) {
    int destroyed = 0;
    {
        CSmartRefCountPtr<Probe> p(new Probe(destroyed));
        {
            CSmartRefCountPtr<Probe> copy(p);
            EXPECT_EQ(copy.get(), p.get());
        }
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);

    int first = 0;
    int second = 0;
    CSmartRefCountPtr<Probe> p(new Probe(first));
    p = new Probe(second);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    p = nullptr;
    EXPECT_EQ(second, 1);
}

TEST(FoundationRefCount, SelfAssignmentKeepsTheCount) {
    int destroyed = 0;
    CSmartRefCountPtr<Probe> p(new Probe(destroyed));
    CSmartRefCountPtr<Probe>& alias = p;
    p = alias;
    EXPECT_EQ(p->addRef(), 2);
    EXPECT_EQ(p->release(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(FoundationNumbers, EmptyTextIsZero) {
    int n = 7;
    EXPECT_TRUE(ToInt32(SWCharString(), n));
    EXPECT_EQ(n, 0);
    uint64_t u = 7;
    EXPECT_TRUE(ToUInt64(SWCharString(), u));
    EXPECT_EQ(u, 0u);
}

TEST(FoundationNumbers, BoundsAndMalformedText) {
    struct Case {
        const ostrel_char* text;
        bool ok32;
        int value32;
    };
    const Case cases32[] = {
        {OSTREL_T("2147483647"), true, 2147483647},
        {OSTREL_T("-2147483648"), true, -2147483647 - 1},
        {OSTREL_T("2147483648"), false, 0},
        {OSTREL_T("-2147483649"), false, 0},
        {OSTREL_T("-0"), true, 0},
        {OSTREL_T("+12"), true, 12},
        {OSTREL_T("+"), false, 0},
        {OSTREL_T("-"), false, 0},
        {OSTREL_T("12a"), false, 0},
        {OSTREL_T(" 1"), false, 0},
        {OSTREL_T("99999999999999999999"), false, 0},
    };
    for (const Case& c : cases32) {
        int n = -99;
        const bool ok = ToInt32(SWCharString(c.text), n);
        EXPECT_EQ(ok, c.ok32) << ToAnsiString(c.text).c_str();
        // A failed conversion leaves the target as it stood.
        EXPECT_EQ(n, ok ? c.value32 : -99) << ToAnsiString(c.text).c_str();
    }

    int64_t n64 = 0;
    EXPECT_TRUE(ToInt64(SWCharString(OSTREL_T("9223372036854775807")), n64));
    EXPECT_EQ(n64, INT64_MAX);
    EXPECT_TRUE(ToInt64(SWCharString(OSTREL_T("-9223372036854775808")), n64));
    EXPECT_EQ(n64, INT64_MIN);
    EXPECT_FALSE(ToInt64(SWCharString(OSTREL_T("9223372036854775808")), n64));
    EXPECT_FALSE(ToInt64(SWCharString(OSTREL_T("-9223372036854775809")), n64));

    uint64_t u64 = 0;
    EXPECT_TRUE(ToUInt64(SWCharString(OSTREL_T("18446744073709551615")), u64));
    EXPECT_EQ(u64, UINT64_MAX);
    EXPECT_FALSE(ToUInt64(SWCharString(OSTREL_T("18446744073709551616")), u64));
    EXPECT_FALSE(ToUInt64(SWCharString(OSTREL_T("-1")), u64));
    EXPECT_FALSE(ToUInt64(SWCharString(OSTREL_T("-0")), u64));
    EXPECT_EQ(u64, UINT64_MAX);

    EXPECT_TRUE(SWCharStringConv::ToString(-2147483647 - 1, 10) == OSTREL_T("-2147483648"));
    EXPECT_TRUE(SWCharStringConv::ToString(static_cast<long long>(INT64_MIN), 10) == OSTREL_T("-9223372036854775808"));
    EXPECT_TRUE(SWCharStringConv::ToString(static_cast<unsigned long long>(UINT64_MAX), 10) ==
                OSTREL_T("18446744073709551615"));
}

TEST(FoundationContainers, MapKeepsKeyOrderAndOverwrites) {
    SIMap<SWCharString, int> map;
    map.SetAt(SWCharString(OSTREL_T("bb")), 1);
    map.SetAt(SWCharString(OSTREL_T("a")), 2);
    map.SetAt(SWCharString(OSTREL_T("c")), 3);
    map.SetAt(SWCharString(OSTREL_T("a")), 4);
    EXPECT_EQ(map.GetCount(), 3u);

    // Iteration follows compareFast, whatever order it defines.
    std::vector<SWCharString> keys;
    for (SIMap<SWCharString, int>::Iterator it(map); !it.isAtEnd(); ++it) {
        keys.push_back(it.key());
    }
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_LT(keys[0].compareFast(keys[1]), 0);
    EXPECT_LT(keys[1].compareFast(keys[2]), 0);
    EXPECT_EQ(*map.Find(SWCharString(OSTREL_T("a"))), 4);

    std::vector<SWCharString> backwards;
    for (SIMap<SWCharString, int>::Iterator it(map, true); !it.isAtEnd(); ++it) {
        backwards.push_back(it.key());
    }
    ASSERT_EQ(backwards.size(), 3u);
    EXPECT_TRUE(backwards[0] == keys[2] && backwards[2] == keys[0]);

    int value = 0;
    EXPECT_FALSE(map.RemoveKey(SWCharString(OSTREL_T("zz"))));
    EXPECT_EQ(map.GetCount(), 3u);
    EXPECT_TRUE(map.RemoveKey(SWCharString(OSTREL_T("c"))));
    EXPECT_FALSE(map.Lookup(SWCharString(OSTREL_T("c")), value));
    EXPECT_TRUE(map.Lookup(SWCharString(OSTREL_T("bb")), value));
    EXPECT_EQ(value, 1);

    SISet<SWCharString> set;
    EXPECT_TRUE(set.Add(SWCharString(OSTREL_T("k"))));
    EXPECT_FALSE(set.Add(SWCharString(OSTREL_T("k"))));
    EXPECT_EQ(set.GetCount(), 1u);
}

TEST(FoundationTrace, PlaceholdersAreFilledAndTrailingBlankKept) {
    std::vector<std::string> lines;
    SLogger::SetSink([&lines](const std::string& i_line) { lines.push_back(i_line); });
    STRACE("five: %1 %2 %3 %4 %5 ", 1, -2L, "three", SWCharString(OSTREL_T("four")), 5ULL);
    STRACE("two: %2/%1", 10u, "x");
    STRACE("none: %1 stays");
    SLogger::SetSink(nullptr);

    ASSERT_EQ(lines.size(), 3u);
    auto endsWith = [](const std::string& s, const std::string& tail) {
        return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
    };
    EXPECT_TRUE(endsWith(lines[0], "five: 1 -2 three four 5 ")) << lines[0];
    EXPECT_TRUE(endsWith(lines[1], "two: x/10")) << lines[1];
    EXPECT_TRUE(endsWith(lines[2], "none: %1 stays")) << lines[2];
}

}  // namespace
