// The foundation: strings and numbers, reference counting, containers, trace, threads and their slots,
// locks, dates, code sets, stored secrets, shared libraries and the message store.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Codeset.h"
#include "foundation/Containers.h"
#include "foundation/DateTime.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"
#include "foundation/ResManager.h"
#include "foundation/Scrambler.h"
#include "foundation/SharedLibrary.h"
#include "foundation/Threads.h"
#include "foundation/Trace.h"
#include "support/FakeToken.h"

using namespace Tarvik500;

namespace {

std::string A(const SWCharString& s) { return ToAnsiString(s.c_str()).c_str(); }
SWCharString W(const std::string& s) { return ToWCharString(s.c_str()); }

template <class Body>
void OnThreads(int i_n, Body i_body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < i_n; ++t) {
        threads.emplace_back(i_body, t);
    }
    for (auto& t : threads) {
        t.join();
    }
}

TEST(Foundation, StringsAreValuesAndConvertBothWidths) {
    SWCharString original(OSTREL_T("alpha"));
    SWCharString copy(original);
    original += OSTREL_T("-beta");
    EXPECT_TRUE(copy == OSTREL_T("alpha") && original == OSTREL_T("alpha-beta"));
    EXPECT_TRUE(SWCharString(static_cast<const ostrel_char*>(nullptr)).isEmpty());
    std::atomic<int> nBad{0};  // copies of one shared buffer, on many threads at once
    OnThreads(4, [&](int) {
        for (int i = 0; i < 2000; ++i) {
            SWCharString c(copy);
            c += OSTREL_T("+");
            nBad += c.getNChars() == 6 && copy == OSTREL_T("alpha") ? 0 : 1;
        }
    });
    EXPECT_EQ(nBad, 0);

    const SWCharString text(OSTREL_T("host:1234,host2:99"));
    auto colon = text.findFirst(':');
    EXPECT_TRUE(text.left(colon) == OSTREL_T("host") && text.right(colon) == OSTREL_T(":1234,host2:99"));
    ++colon;
    EXPECT_EQ(colon.find(SWCharString(OSTREL_T(":"))).position(), 15u);
    EXPECT_EQ(*text.find(SWCharString(OSTREL_T("absent"))), 0);
    SWCharString padded(OSTREL_T("value \t\r\n"));
    padded.trimRight();
    EXPECT_TRUE(padded == OSTREL_T("value"));

    const ostrel_char clef[] = {'a', 0x00E9, 0xD834, 0xDD1E, 0}, high[] = {0xD800, 'x', 0}, low[] = {'x', 0xDC00, 0};
    EXPECT_EQ(A(clef), "a\xC3\xA9\xF0\x9D\x84\x9E");
    EXPECT_TRUE(W(A(clef)) == clef);
    EXPECT_EQ(A(high) + A(low), "??");
    EXPECT_TRUE(W("\xC3\x28") == OSTREL_T("?"));
    const SSimpleBuffer bytes = MBCSCodesetConverter::TToExplicitCodeset(SWCharString(clef), ECS_UTF8);
    EXPECT_EQ(std::string(bytes.data(), bytes.size()), "a\xC3\xA9\xF0\x9D\x84\x9E");
    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT(bytes.data(), ECS_UTF8) == clef);
    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT("\xFF", ECS_UTF8) == OSTREL_T("?"));
    EXPECT_STREQ(MBCSCodesetConverter::TToExplicitCodeset(SWCharString(low), ECS_UTF8).data(), "?");
}

TEST(Foundation, NumbersParseWithinBoundsAndPrintBack) {
    const struct {
        const char* text;
        bool ok32, ok64, okU64;
        const char* printed;  // when parsed
    } rows[] = {
        {"2147483647", true, true, true, "2147483647"}, {"-2147483648", true, true, false, "-2147483648"},
        {"2147483648", false, true, true, "2147483648"}, {"-2147483649", false, true, false, "-2147483649"},
        {"-0", true, true, false, "0"}, {"+12", true, true, true, "12"}, {"", true, true, true, "0"},
        {"+", false, false, false, ""}, {"-", false, false, false, ""}, {"12a", false, false, false, ""},
        {" 1", false, false, false, ""}, {"9223372036854775807", false, true, true, "9223372036854775807"},
        {"-9223372036854775808", false, true, false, "-9223372036854775808"},
        {"9223372036854775808", false, false, true, "9223372036854775808"},
        {"18446744073709551615", false, false, true, "18446744073709551615"},
        {"18446744073709551616", false, false, false, ""},
    };
    for (const auto& row : rows) {
        int n32 = -99;
        int64_t n64 = -99;
        uint64_t u64 = 99;
        // What parsed prints back; what did not leaves the target as it stood.
        EXPECT_EQ(ToInt32(W(row.text), n32) ? A(SWCharStringConv::ToString(n32, 10)) : std::to_string(n32),
                  row.ok32 ? row.printed : "-99") << row.text;
        EXPECT_EQ(ToInt64(W(row.text), n64) ? A(SWCharStringConv::ToString(static_cast<long long>(n64), 10))
                                            : std::to_string(n64),
                  row.ok64 ? row.printed : "-99") << row.text;
        EXPECT_EQ(ToUInt64(W(row.text), u64) ? A(SWCharStringConv::ToString(static_cast<unsigned long long>(u64), 10))
                                             : std::to_string(u64),
                  row.okU64 ? row.printed : "99") << row.text;
    }
}

struct Probe : CRefCount {
    explicit Probe(int& io_n) : m_n(io_n) {}
    ~Probe() override { ++m_n; }
    int& m_n;
};

TEST(Foundation, ReferencesContainersAndTrace) {
    int first = 0, second = 0;
    {
        CSmartRefCountPtr<Probe> p(new Probe(first));  // a fresh object is adopted
        CSmartRefCountPtr<Probe> copy(p);
        CSmartRefCountPtr<Probe>& alias = p;
        p = alias;
        EXPECT_EQ(p->addRef(), 3);
        EXPECT_EQ(p->release(), 2);
        p = new Probe(second);
        EXPECT_EQ(first, 0);
    }
    EXPECT_EQ(first + second, 2);

    SIMap<SWCharString, int> map;
    const std::pair<const ostrel_char*, int> entries[] = {{OSTREL_T("bb"), 1}, {OSTREL_T("a"), 2}, {OSTREL_T("c"), 3},
                                                          {OSTREL_T("a"), 4}};
    for (auto [k, v] : entries) {
        map.SetAt(SWCharString(k), v);
    }
    std::vector<SWCharString> keys, backwards;
    for (SIMap<SWCharString, int>::Iterator it(map); !it.isAtEnd(); ++it) {
        keys.push_back(it.key());
    }
    for (SIMap<SWCharString, int>::Iterator it(map, true); !it.isAtEnd(); ++it) {
        backwards.insert(backwards.begin(), it.key());
    }
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_TRUE(keys[0].compareFast(keys[1]) < 0 && keys[1].compareFast(keys[2]) < 0 && keys == backwards);
    int value = 0;
    EXPECT_TRUE(!map.RemoveKey(SWCharString(OSTREL_T("zz"))) && map.RemoveKey(SWCharString(OSTREL_T("c"))));
    EXPECT_TRUE(map.Lookup(SWCharString(OSTREL_T("a")), value) && value == 4 && map.GetCount() == 2u);
    SISet<SWCharString> set;
    EXPECT_TRUE(set.Add(SWCharString(OSTREL_T("k"))) && !set.Add(SWCharString(OSTREL_T("k"))));

    std::vector<std::string> lines;
    SLogger::SetSink([&lines](const std::string& i_line) { lines.push_back(i_line); });
    STRACE("five: %1 %2 %3 %4 %5 ", 1, -2L, "three", SWCharString(OSTREL_T("four")), 5ULL);
    STRACE("two: %2/%1", 10u, "x");
    STRACE("none: %1 stays");
    SLogger::SetSink(nullptr);
    ASSERT_EQ(lines.size(), 3u);
    const char* const tails[] = {"five: 1 -2 three four 5 ", "two: x/10", "none: %1 stays"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(lines[i].substr(lines[i].size() - std::min(lines[i].size(), std::strlen(tails[i]))), tails[i]);
    }
}

// Sleeps a minute unless woken or stopped.
class Sleeper : public TerminatingThread {
public:
    explicit Sleeper(std::atomic<int>* io_pDestroyed) : m_pDestroyed(io_pDestroyed) {}
    ~Sleeper() override { ++*m_pDestroyed; }
    std::atomic<int> m_nWakes{0};
    std::atomic<bool> m_bStopped{false};

protected:
    void run() override {
        while (!(m_bStopped = sleep_with_stop_alarm(60000))) {
            ++m_nWakes;
        }
    }

private:
    std::atomic<int>* m_pDestroyed;
};

TEST(Foundation, ThreadsWakeStopAndOutliveTheirHandle) {
    std::atomic<int> destroyed{0};
    JTCHandleT<Sleeper> thread(new Sleeper(&destroyed));
    thread->start();
    EXPECT_FALSE(thread->join(20)) << "a running thread cannot be joined";
    thread->awake();  // one wake: one more round of sleep, not a stop
    ASSERT_TRUE(ostrel_test::WaitUntil([&] { return thread->m_nWakes == 1; }));
    EXPECT_TRUE(thread->isAlive() && !thread->isStopped());
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(thread->m_nWakes, 1) << "a wake-up counts once";
    Sleeper* pRaw = thread.get();
    thread = JTCHandleT<Sleeper>();  // its own reference keeps it
    EXPECT_EQ(destroyed, 0);
    const auto begin = std::chrono::steady_clock::now();
    pRaw->stop();
    ASSERT_TRUE(ostrel_test::WaitUntil([&] { return destroyed == 1; })) << "stop did not end the sleep";
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));

    class Thrower : public JTCThread {
        void run() override { throw std::runtime_error("the body failed"); }
    };
    JTCHandleT<Thrower> thrower(new Thrower());
    thrower->start();
    EXPECT_TRUE(thrower->join(5000));  // an exception ends only the thread
    EXPECT_THROW(thrower->start(), JTCException);
    const bool bBefore = JTCInitialize::initialized();
    {
        JTCInitialize outer;
        { JTCInitialize inner; }
        EXPECT_TRUE(JTCInitialize::initialized());
    }
    EXPECT_EQ(JTCInitialize::initialized(), bBefore);
}

TEST(Foundation, ThreadSlotsAreOwnFreshAndLimited) {
    int mine = 1, theirs = 2;
    const uint32_t key = JTCTSS::allocate();
    EXPECT_EQ(JTCTSS::get(key), nullptr);
    JTCTSS::set(key, &mine);
    std::thread([&] {
        EXPECT_EQ(JTCTSS::get(key), nullptr);
        JTCTSS::set(key, &theirs);
        EXPECT_EQ(JTCTSS::get(key), &theirs);
    }).join();
    EXPECT_EQ(JTCTSS::get(key), &mine);
    JTCTSS::release(key);
    EXPECT_THROW(JTCTSS::get(key), JTCSystemCallException);
    EXPECT_THROW(JTCTSS::release(key), JTCSystemCallException);
    const uint32_t again = JTCTSS::allocate();  // the freed key comes back first, without its old value
    ASSERT_EQ(again, key);
    EXPECT_EQ(JTCTSS::get(again), nullptr);
    JTCTSS::release(again);
    EXPECT_THROW(JTCTSS::get(0), JTCSystemCallException);
    std::vector<uint32_t> keys;
    try {
        for (int i = 0; i < 5000; ++i) {
            keys.push_back(JTCTSS::allocate());
        }
        ADD_FAILURE() << "no limit";
    } catch (const JTCSystemCallException&) {
    }
    for (uint32_t k : keys) {
        JTCTSS::release(k);
    }
}

// Readers may share the lock; a writer never meets anyone inside.
TEST(Foundation, WritersExcludeEveryoneReadersOnlyWriters) {
    CRWLock lock;
    std::atomic<int> nReaders{0}, nWriters{0}, nViolations{0};
    OnThreads(4, [&](int t) {
        for (int i = 0; i < 5000; ++i) {
            if (t % 2 == 0) {
                CSmartWriteLocker guard(lock);
                nViolations += (nWriters.fetch_add(1) != 0 || nReaders.load() != 0) ? 1 : 0;
                std::this_thread::yield();  // widen the window a broken lock would show in
                nWriters.fetch_sub(1);
            } else {
                CSmartReadLocker guard(lock);
                nReaders.fetch_add(1);
                std::this_thread::yield();
                nViolations += nWriters.load() != 0 ? 1 : 0;
                nReaders.fetch_sub(1);
            }
        }
    });
    EXPECT_EQ(nViolations, 0);
}

TEST(Foundation, DatesInUtcAndTheMachineZone) {
    const SDateTime leapDay(2000, 2, 29, 12, 0, 0, 500, STimeZone::TZ_UTC());
    EXPECT_EQ(leapDay.GetMilliseconds(), INT64_C(951825600500));
    EXPECT_EQ(leapDay.GetTimeT(STimeZone::TZ_Local()), 951825600);
    const SDateTime later = leapDay + STimeSpan(90061001);
    EXPECT_TRUE(later > leapDay && leapDay < later && (leapDay - later).GetMilliseconds() == -90061001);
    EXPECT_TRUE(later == SDateTime(2000, 3, 1, 13, 1, 1, 501, STimeZone::TZ_UTC()));
    EXPECT_EQ(SDateTime::FromMilliseconds(-1).GetTimeT(STimeZone::TZ_UTC()), -1) << "seconds round down";
    const int64_t now = SDateTime::GetCurrentDateTime().GetTimeT(STimeZone::TZ_Local());
    EXPECT_LE(std::abs(now - static_cast<int64_t>(std::time(nullptr))), 5);

    SDateTime moved(2024, 3, 15, 13, 45, 30, 250, STimeZone::TZ_Local());
    const SDateTime built = moved;
    EXPECT_EQ(std::make_tuple(built.GetDate().m_nYear, built.GetDate().m_nMonth, built.GetDate().m_nDay,
                              built.GetTime().m_nHour, built.GetTime().m_nMinute, built.GetTime().m_nSecond,
                              built.GetTime().m_nMillisecond),
              std::make_tuple(2024, 3, 15, 13, 45, 30, 250));
    moved.SetDate(SDate{2024, 3, 16});
    moved.SetTime(STime{14, 45, 30, 250});
    EXPECT_EQ((moved - built).GetMilliseconds(), INT64_C(90000000));
#if !defined(_WIN32)
    const char* pOld = std::getenv("TZ");
    const std::string old = pOld != nullptr ? pOld : "";
    setenv("TZ", "XST5", 1);  // five hours behind UTC, no summer time
    tzset();
    const bool bSame = SDateTime(2024, 1, 1, 0, 0, 0, 0, STimeZone::TZ_Local()) ==
                       SDateTime(2024, 1, 1, 5, 0, 0, 0, STimeZone::TZ_UTC());
    pOld != nullptr ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
    tzset();
    EXPECT_TRUE(bSame);
#endif
}

// The stored form built from its written description, not from the code.
std::string DocumentedStoredForm(const std::array<unsigned char, 8>& i_salt, const std::string& i_plain) {
    uint64_t seed = UINT64_C(0xcbf29ce484222325);
    uint32_t check = 0x811c9dc5u;
    for (unsigned char c : std::string("ostrel stored secret v1")) {
        seed = (seed ^ c) * UINT64_C(0x100000001b3);
    }
    std::string hex;
    auto addHex = [&hex](unsigned char c) { hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15]; };
    for (unsigned char c : i_salt) {
        seed = (seed ^ c) * UINT64_C(0x100000001b3);
        check = (check ^ c) * 0x01000193u;
        addHex(c);
    }
    hex += ':';
    for (size_t i = 0; i < i_plain.size(); ++i) {
        uint64_t z = seed + (i / 8 + 1) * UINT64_C(0x9E3779B97F4A7C15);
        z = (z ^ (z >> 30)) * UINT64_C(0xBF58476D1CE4E5B9);
        z = (z ^ (z >> 27)) * UINT64_C(0x94D049BB133111EB);
        z ^= z >> 31;
        const auto c = static_cast<unsigned char>(i_plain[i]);
        addHex(static_cast<unsigned char>(c ^ static_cast<unsigned char>(z >> (8 * (i % 8)))));
        check = (check ^ c) * 0x01000193u;
    }
    char checkHex[10];
    std::snprintf(checkHex, sizeof(checkHex), ":%08x", check);
    return "OSS1:" + hex + checkHex;
}

TEST(Foundation, StoredSecretsRoundTripAndMatchTheirDescription) {
    const ostrel_char secretText[] = {'s', 'e', 'c', 'r', 0x00E9, 't', ' ', 0xD834, 0xDD1E, 0};
    SWCharString first, second, plain;
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(SWCharString(secretText), first));
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(SWCharString(secretText), second));
    EXPECT_FALSE(first == second) << "a fresh salt each time";
    EXPECT_TRUE(SScrambler::DecryptPasswordDB(first, plain) && plain == secretText);
    const ostrel_char unpaired[] = {'a', 0xD800, 0};
    EXPECT_FALSE(SScrambler::EncryptPasswordDB(SWCharString(unpaired), first));

    const std::array<unsigned char, 8> salt = {9, 8, 7, 6, 5, 4, 3, 2};
    const std::string good = DocumentedStoredForm(salt, "a longer shared secret");
    std::string upper = good, badCheck = good, tampered = good;
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(c));
    }
    badCheck.back() = badCheck.back() == '0' ? '1' : '0';
    tampered[22] = tampered[22] == 'a' ? 'b' : 'a';
    for (const std::string& ok : {good, upper}) {
        plain = OSTREL_T("x");
        EXPECT_TRUE(SScrambler::DecryptPasswordDB(W(ok), plain) && plain == OSTREL_T("a longer shared secret")) << ok;
    }
    const std::string malformed[] = {"", "OSS1:", "OSS2" + good.substr(4), "oss1" + good.substr(4),
                                     good.substr(0, good.size() - 1), good + "0", good.substr(0, 10) + "g" + good.substr(11),
                                     good.substr(0, 5) + good.substr(7), "OSS1:0102030405060708:abc:00000000", badCheck,
                                     tampered, good + ":00", DocumentedStoredForm(salt, "\xC3\x28"),
                                     DocumentedStoredForm(salt, std::string("a\0b", 3))};
    for (const std::string& stored : malformed) {
        SWCharString kept(OSTREL_T("untouched"));
        EXPECT_FALSE(SScrambler::DecryptPasswordDB(W(stored), kept)) << stored;
        EXPECT_TRUE(kept == OSTREL_T("untouched")) << stored;
    }
}

TEST(Foundation, SharedLibrariesAndTheMessageStore) {
    CSharedLibrary library;
    library.LoadLibraryW(W(OSTREL_FAKE_GSSAPI_PATH), CSharedLibrary::LM_NOW_LOCAL, true);
    ASSERT_TRUE(library.IsLoaded());
    auto pCalls = reinterpret_cast<long (*)(const char*)>(library.GetFunction("fake_gss_calls", true));
    ASSERT_NE(pCalls, nullptr);
    EXPECT_GE(pCalls(nullptr), 0);
    EXPECT_EQ(library.GetFunction("ostrel_no_such_symbol", false), nullptr);
    auto expectNamed = [](const char* i_pName, auto i_fn) {
        try {
            i_fn();
            ADD_FAILURE() << i_pName << " was found";
        } catch (const CSharedLibraryException& e) {
            EXPECT_NE(std::string(e.text()).find(i_pName), std::string::npos) << e.text();
        }
    };
    expectNamed("ostrel_no_such_symbol", [&] { library.GetFunction("ostrel_no_such_symbol", true); });
    CSharedLibrary missing;
    expectNamed("ostrel_no_such_library",
                [&] { missing.LoadLibraryW(W("ostrel_no_such_library"), CSharedLibrary::LM_NOW_LOCAL, true); });
    EXPECT_FALSE(missing.IsLoaded());
    library.FreeLibrary();
    EXPECT_THROW(library.GetFunction("fake_gss_calls", true), CSharedLibraryException);

    EXPECT_TRUE(SResManager::Initialize());
    for (unsigned long id : {42254, 42256, 42502, 47300, 47702, 49442, 49443, 49444, 49446, 49447, 49448, 49449, 50046,
                             50054, 61748, 61749, 61773, 61774, 61775, 61776, 61869, 42038, 50047, 61777, 61778}) {
        const std::string text = A(SResManager::LoadStringW(id, 0));
        const bool bSubstituted = id == 42038 || id == 50047 || id == 61777 || id == 61778;
        EXPECT_GT(text.size(), 10u) << id;
        EXPECT_EQ(text.find("%1") != std::string::npos, bSubstituted) << id;
        EXPECT_EQ(text.find("%2"), std::string::npos) << id;
    }
    for (unsigned long id : {0, 42255, 99999}) {
        EXPECT_TRUE(SResManager::LoadStringW(id, 0).isEmpty()) << id;
    }
    EXPECT_TRUE(SResManager::Terminate());
}

}  // namespace
