// Error records for the host, the per-thread store that keeps them, message texts, and checked narrowing.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "authentication/ostrel/ErrorManager.h"
#include "authentication/ostrel/IntCast.h"
#include "authentication/ostrel/SSOException.h"
#include "support/TraceCapture.h"

#if defined(OSTREL_SANITIZE_ADDRESS)
#include <sanitizer/lsan_interface.h>
#endif

using namespace ostrel;

namespace {

std::u16string Text(const ostrel_char* p) { return p == nullptr ? u"<null>" : reinterpret_cast<const char16_t*>(p); }

SSOException WithStrings(uint32_t i_nStatus, std::initializer_list<const ostrel_char*> i_texts) {
    SIArray<SWCharString> arr;
    for (const ostrel_char* p : i_texts) arr.Add(SWCharString(p));
    return SSOException(i_nStatus, MSG_NO_HANDLER, arr);
}

}  // namespace

TEST(ErrorRecords, CarryStatusIdAndSubstitutionsAndOutOfMemoryIsStatic) {
    ostrel_test::TraceCapture capture;
    // Four strings are more than a message has places for: reported, and all copied; an empty one is NULL.
    Plugin_Exception_Struct* pError =
        CreateErrorStruct(WithStrings(100, {OSTREL_T("one"), OSTREL_T(""), OSTREL_T("three"), OSTREL_T("four")}));
    ASSERT_NE(pError, nullptr);
    EXPECT_EQ(std::make_tuple(pError->errCode, pError->messageId, pError->message),
              std::make_tuple(100u, uint32_t{MSG_NO_HANDLER}, static_cast<ostrel_char*>(nullptr)));
    std::vector<std::u16string> seen;
    for (SubstString* p = pError->pSubstStrings; p != nullptr; p = p->next) seen.push_back(Text(p->data));
    EXPECT_EQ(seen, (std::vector<std::u16string>{u"one", u"<null>", u"three", u"four"}));
    EXPECT_TRUE(capture.has("ASSERT(nSubstStringCount <= 3)"));
    FreeErrorStruct(pError);

    // The record's id differs from the exception's on purpose; freeing it leaves it intact.
    pError = CreateErrorStruct(g_OutOfMemoryException);
    ASSERT_EQ(pError, OutOfMemoryRecord());
    EXPECT_EQ(g_OutOfMemoryException.GetMessageId(), 42502u);
    EXPECT_EQ(std::make_pair(pError->errCode, pError->messageId), std::make_pair(106u, 42256u));
    EXPECT_EQ(Text(pError->message), u"ostrel failed to allocate memory.\n");
    FreeErrorStruct(pError);
    FreeErrorStruct(nullptr);
    EXPECT_EQ(OutOfMemoryRecord()->errCode, 106u);
}

TEST(ErrorRecords, EachThreadTakesItsOwnLastRecordOnce) {
    CSmartRefCountPtr<ErrorManager> pManager{new ErrorManager()};
    pManager->SetThreadError(SSOException(100, 42254));
    pManager->SetThreadError(SSOException(103, 61775));
    Plugin_Exception_Struct* pOther = OutOfMemoryRecord();
    std::thread([&] { pOther = pManager->GetThreadError(); }).join();
    EXPECT_EQ(pOther, nullptr);
    Plugin_Exception_Struct* pError = pManager->GetThreadError();
    ASSERT_NE(pError, nullptr);
    EXPECT_EQ(std::make_pair(pError->errCode, pError->messageId), std::make_pair(103u, 61775u));
    EXPECT_EQ(pManager->GetThreadError(), nullptr);
    FreeErrorStruct(pError);

    ostrel_char* pText = pManager->GetMessageContent(MSG_NO_HANDLER);
    EXPECT_NE(Text(pText).find(u"%1"), std::u16string::npos);
    std::free(pText);
    EXPECT_EQ(pManager->GetMessageContent(12345), nullptr);
}

// Records never fetched, of threads that ended and of this one, are freed with the manager.
TEST(ErrorRecords, RecordsNobodyFetchedDieWithTheManager) {
#if !defined(OSTREL_SANITIZE_ADDRESS)
    GTEST_SKIP() << "needs the leak checker (the asan preset)";
#else
    CSmartRefCountPtr<ErrorManager> pManager{new ErrorManager()};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { pManager->SetThreadError(WithStrings(100, {OSTREL_T("GSSAPI")})); });
    }
    for (auto& t : threads) t.join();
    pManager->SetThreadError(SSOException(100));
    pManager->SetThreadError(SSOException(101));
    pManager = nullptr;
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
#endif
}

TEST(IntCast, NarrowsOnlyWhatFitsAndSaysWhy) {
    EXPECT_EQ(int_cast<uint32_t>(uint64_t{4294967295u}), 4294967295u);
    EXPECT_EQ(int_cast<int32_t>(int64_t{-2147483648LL}), INT32_MIN);
    try {
        (void)int_cast<uint32_t>(uint64_t{4294967296u});
        ADD_FAILURE() << "no exception";
    } catch (const PositiveOverflowException& e) {
        EXPECT_EQ(std::make_pair(e.kind(), e.value()), std::make_pair(1, uint64_t{4294967296u}));
        EXPECT_STREQ(e.what(), "int_cast error: positive overflow");
        EXPECT_STREQ(e.sourceType(), typeid(uint64_t).name());
        EXPECT_STREQ(e.targetType(), typeid(uint32_t).name());
        EXPECT_STREQ(e.std::runtime_error::what(), "int cast error");
    }
    EXPECT_THROW((void)int_cast<uint32_t>(int64_t{-1}), UnsignedNegativeException);
    EXPECT_THROW((void)int_cast<int32_t>(int64_t{-2147483649LL}), NegativeOverflowException);
    EXPECT_STREQ(NegativeOverflowException(0, "a", "b").what(), "int_cast error: negative overflow ");
    EXPECT_STREQ(UnsignedNegativeException(0, "a", "b").what(), "int cast error: storing negative in unsigned data type");
}
