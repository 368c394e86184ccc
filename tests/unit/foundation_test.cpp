// The foundation: numbers and strings, references, containers, trace, threads and their slots, locks, dates,
// stored secrets, shared libraries and the message store.
#include <gtest/gtest.h>

#include <cctype>
#include <thread>
#include <type_traits>
#include <vector>

#include "foundation/Codeset.h"
#include "foundation/Containers.h"
#include "foundation/DateTime.h"
#include "foundation/Locks.h"
#include "foundation/ResManager.h"
#include "foundation/Scrambler.h"
#include "foundation/SharedLibrary.h"
#include "foundation/Threads.h"
#include "foundation/Trace.h"
#include "support/FakeToken.h"

using namespace Tarvik500;

namespace {

// A pointer is adopted only where the code says so: held elsewhere, it would be released twice.
static_assert(!std::is_convertible_v<CRefCount*, CSmartRefCountPtr<CRefCount>>);
static_assert(!std::is_assignable_v<CSmartRefCountPtr<CRefCount>&, CRefCount*>);
static_assert(std::is_constructible_v<CSmartRefCountPtr<CRefCount>, CRefCount*>);

std::string A(const SWCharString& s) { return ToAnsiString(s.c_str()).c_str(); }
SWCharString W(const std::string& s) { return ToWCharString(s.c_str()); }

TEST(Foundation, NumbersParseWithinBoundsAndPrintBack) {
    const struct {
        const char* text;
        bool ok32, ok64, okU64;
        const char* printed;
    } rows[] = {
        {"2147483647", 1, 1, 1, "2147483647"}, {"-2147483648", 1, 1, 0, "-2147483648"}, {"2147483648", 0, 1, 1, "2147483648"},
        {"-2147483649", 0, 1, 0, "-2147483649"}, {"-0", 1, 1, 0, "0"}, {"+12", 1, 1, 1, "12"}, {"", 1, 1, 1, "0"},
        {"+", 0, 0, 0, ""}, {"12a", 0, 0, 0, ""}, {" 1", 0, 0, 0, ""}, {"-9223372036854775808", 0, 1, 0, "-9223372036854775808"},
        {"9223372036854775808", 0, 0, 1, "9223372036854775808"}, {"18446744073709551616", 0, 0, 0, ""}};
    for (const auto& row : rows) {  // what did not parse leaves the target as it stood
        int n32 = -99;
        int64_t n64 = -99;
        uint64_t u64 = 99;
        EXPECT_EQ(ToInt32(W(row.text), n32) ? A(SWCharStringConv::ToString(n32, 10)) : "no", row.ok32 ? row.printed : "no");
        EXPECT_EQ(ToInt64(W(row.text), n64) ? A(SWCharStringConv::ToString(static_cast<long long>(n64), 10)) : "no",
                  row.ok64 ? row.printed : "no") << row.text;
        EXPECT_EQ(ToUInt64(W(row.text), u64) ? A(SWCharStringConv::ToString(static_cast<unsigned long long>(u64), 10)) : "no",
                  row.okU64 ? row.printed : "no") << row.text;
        EXPECT_TRUE((row.ok32 || n32 == -99) && (row.ok64 || n64 == -99) && (row.okU64 || u64 == 99)) << row.text;
    }
}

TEST(Foundation, StringsContainersAndTrace) {
    SWCharString original(OSTREL_T("host:1234,x")), copy(original);
    original += OSTREL_T("-more");
    auto colon = copy.findFirst(':');
    EXPECT_TRUE(copy == OSTREL_T("host:1234,x") && copy.left(colon) == OSTREL_T("host") && copy.right(colon) == OSTREL_T(":1234,x"));
    const ostrel_char clef[] = {'a', 0x00E9, 0xD834, 0xDD1E, 0}, low[] = {'x', 0xDC00, 0};
    EXPECT_EQ(A(clef), "a\xC3\xA9\xF0\x9D\x84\x9E");
    EXPECT_TRUE(W(A(clef)) == clef && W("\xC3\x28") == OSTREL_T("?") && A(low) == "?");
    const SSimpleBuffer utf8 = MBCSCodesetConverter::TToExplicitCodeset(SWCharString(clef), ECS_UTF8);
    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT(utf8.data(), ECS_UTF8) == clef);

    SIMap<SWCharString, int> map;
    for (auto [k, v] : std::vector<std::pair<const ostrel_char*, int>>{{OSTREL_T("bb"), 1}, {OSTREL_T("a"), 2}, {OSTREL_T("a"), 4}}) {
        map.SetAt(SWCharString(k), v);
    }
    std::vector<std::string> keys;
    for (SIMap<SWCharString, int>::Iterator it(map, true); !it.isAtEnd(); ++it) keys.push_back(A(it.key()));
    int value = 0;
    EXPECT_TRUE(keys.size() == 2 && SWCharString(W(keys[1])).compareFast(W(keys[0])) < 0);
    EXPECT_TRUE(map.Lookup(SWCharString(OSTREL_T("a")), value) && value == 4 && map.RemoveKey(SWCharString(OSTREL_T("a"))));

    std::vector<std::string> lines;
    SLogger::SetSink([&lines](const std::string& i_line) { lines.push_back(i_line); });
    STRACE("five: %1 %2 %3 %4 %5 ", 1, -2L, "three", SWCharString(OSTREL_T("four")), 5ULL);
    STRACE("two: %2/%1, none: %6", 10u, "x");
    SLogger::SetSink(nullptr);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].substr(lines[0].find("five")), "five: 1 -2 three four 5 ");
    EXPECT_EQ(lines[1].substr(lines[1].find("two")), "two: x/10, none: %6");
}

// Sleeps a minute unless woken or stopped; counts its wake-ups.
class Sleeper : public TerminatingThread {
public:
    explicit Sleeper(std::atomic<int>* io_pDestroyed) : m_pDestroyed(io_pDestroyed) {}
    ~Sleeper() override { ++*m_pDestroyed; }
    std::atomic<int> m_nWakes{0};

protected:
    void run() override {
        while (!sleep_with_stop_alarm(60000)) ++m_nWakes;
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
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(thread->m_nWakes == 1 && thread->isAlive()) << "a wake-up counts once";
    Sleeper* pRaw = thread.get();
    thread = JTCHandleT<Sleeper>();  // its own reference keeps it
    EXPECT_EQ(destroyed, 0);
    pRaw->stop();
    ASSERT_TRUE(ostrel_test::WaitUntil([&] { return destroyed == 1; })) << "stop did not end the sleep";

    int mine = 1, theirs = 2;  // thread slots: each thread its own, fresh after a release
    const uint32_t key = JTCTSS::allocate();
    JTCTSS::set(key, &mine);
    std::thread([&] {
        EXPECT_EQ(JTCTSS::get(key), nullptr);
        JTCTSS::set(key, &theirs);
    }).join();
    EXPECT_EQ(JTCTSS::get(key), &mine);
    JTCTSS::release(key);
    EXPECT_THROW(JTCTSS::get(key), JTCSystemCallException);
    const uint32_t again = JTCTSS::allocate();
    EXPECT_TRUE(again == key && JTCTSS::get(again) == nullptr) << "the freed key comes back without its old value";
    JTCTSS::release(again);
    std::vector<uint32_t> keys;
    EXPECT_THROW(for (;;) keys.push_back(JTCTSS::allocate()), JTCSystemCallException);
    for (uint32_t k : keys) JTCTSS::release(k);
}

// Readers may share the lock; a writer never meets anyone inside.
TEST(Foundation, WritersExcludeEveryoneReadersOnlyWriters) {
    CRWLock lock;
    std::atomic<int> nReaders{0}, nWriters{0}, nViolations{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5000; ++i) {
                if (t % 2 == 0) {
                    CSmartWriteLocker guard(lock);
                    nViolations += nWriters.fetch_add(1) != 0 || nReaders != 0;
                    std::this_thread::yield();  // widen the window a broken lock would show in
                    --nWriters;
                } else {
                    CSmartReadLocker guard(lock);
                    ++nReaders;
                    std::this_thread::yield();
                    nViolations += nWriters != 0;
                    --nReaders;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(nViolations, 0);
}

TEST(Foundation, DatesSecretsLibrariesAndMessages) {
    const SDateTime leapDay(2000, 2, 29, 12, 0, 0, 500, STimeZone::TZ_UTC());
    EXPECT_EQ(leapDay.GetMilliseconds(), INT64_C(951825600500));
    EXPECT_TRUE(leapDay + STimeSpan(90061001) == SDateTime(2000, 3, 1, 13, 1, 1, 501, STimeZone::TZ_UTC()));
    EXPECT_EQ(SDateTime::FromMilliseconds(-1).GetTimeT(STimeZone::TZ_UTC()), -1) << "seconds round down";
    SDateTime moved(2024, 3, 15, 13, 45, 30, 250, STimeZone::TZ_Local());
    const SDateTime built = moved;
    moved.SetDate(SDate{2024, 3, 16});
    moved.SetTime(STime{14, 45, 30, 250});
    EXPECT_EQ((moved - built).GetMilliseconds(), INT64_C(90000000));

    const ostrel_char secret[] = {'s', 0x00E9, 0xD834, 0xDD1E, 0};
    SWCharString first, second, plain;
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(SWCharString(secret), first) && SScrambler::EncryptPasswordDB(SWCharString(secret), second));
    EXPECT_FALSE(first == second) << "a fresh salt each time";
    const std::string good = A(first);
    std::string upper = good, badCheck = good;
    for (char& c : upper) c = static_cast<char>(std::toupper(c));
    badCheck.back() = badCheck.back() == '0' ? '1' : '0';
    EXPECT_TRUE(SScrambler::DecryptPasswordDB(W(upper), plain) && plain == secret);
    for (const std::string& stored : {std::string("OSS1:"), "OSS2" + good.substr(4), good.substr(0, good.size() - 1), good + "0",
                                      good.substr(0, 10) + "g" + good.substr(11), badCheck, good + ":00"}) {
        SWCharString kept(OSTREL_T("kept"));
        EXPECT_TRUE(!SScrambler::DecryptPasswordDB(W(stored), kept) && kept == OSTREL_T("kept")) << stored;
    }

    CSharedLibrary library, missing;
    library.LoadLibraryW(W(OSTREL_FAKE_GSSAPI_PATH), CSharedLibrary::LM_NOW_LOCAL, true);
    EXPECT_NE(library.GetFunction("fake_gss_calls", true), nullptr);
    EXPECT_EQ(library.GetFunction("ostrel_no_such_symbol", false), nullptr);
    EXPECT_THROW(missing.LoadLibraryW(W("ostrel_no_such_library"), CSharedLibrary::LM_NOW_LOCAL, true), CSharedLibraryException);
    library.FreeLibrary();
    EXPECT_THROW(library.GetFunction("fake_gss_calls", true), CSharedLibraryException);

    EXPECT_TRUE(SResManager::Initialize());
    for (unsigned long id : {42254, 42256, 42502, 47300, 47702, 49442, 49443, 49444, 49446, 49447, 49448, 49449, 50046,
                             50054, 61748, 61749, 61773, 61774, 61775, 61776, 61869, 42038, 50047, 61777, 61778}) {
        const std::string text = A(SResManager::LoadStringW(id, 0));
        EXPECT_GT(text.size(), 10u) << id;
        EXPECT_EQ(text.find("%1") != std::string::npos, id == 42038 || id == 50047 || id == 61777 || id == 61778) << id;
    }
    EXPECT_TRUE(SResManager::LoadStringW(42255, 0).isEmpty());
    EXPECT_TRUE(SResManager::Terminate());
}

}  // namespace
