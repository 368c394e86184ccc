#include <gtest/gtest.h>

#include <thread>

#include "authentication/ostrel/ErrorManager.h"
#include "authentication/ostrel/IntCast.h"
#include "authentication/ostrel/SSOException.h"
#include "support/TraceCapture.h"

using namespace ostrel;

namespace {

SIArray<SWCharString> Strings(std::initializer_list<const ostrel_char*> i_texts) {
    SIArray<SWCharString> arr;
    for (const ostrel_char* p : i_texts) {
        arr.Add(SWCharString(p));
    }
    return arr;
}

std::u16string Text(const ostrel_char* p) {
    return p == nullptr ? u"<null>" : std::u16string(reinterpret_cast<const char16_t*>(p));
}

}  // namespace

TEST(ErrorRecords, CarryStatusIdAndSubstitutionsInOrder) {
    ostrel_test::TraceCapture capture;
    // Four strings are more than a message has places for: reported, and all copied.
    Plugin_Exception_Struct* pError =
        CreateErrorStruct(SSOException(100, 61778, Strings({OSTREL_T("one"), OSTREL_T(""), OSTREL_T("three"), OSTREL_T("four")})));
    ASSERT_NE(pError, nullptr);
    EXPECT_EQ(pError->errCode, 100u);
    EXPECT_EQ(pError->messageId, 61778u);
    EXPECT_EQ(pError->message, nullptr);
    std::vector<std::u16string> seen;
    for (SubstString* p = pError->pSubstStrings; p != nullptr; p = p->next) {
        seen.push_back(Text(p->data));
    }
    EXPECT_EQ(seen, (std::vector<std::u16string>{u"one", u"<null>", u"three", u"four"}));
    EXPECT_TRUE(capture.has("ASSERT(nSubstStringCount <= 3)"));
    FreeErrorStruct(pError);
}

TEST(ErrorRecords, OutOfMemoryUsesTheStaticRecord) {
    Plugin_Exception_Struct* pError = CreateErrorStruct(g_OutOfMemoryException);
    ASSERT_EQ(pError, OutOfMemoryRecord());
    EXPECT_EQ(pError->errCode, 106u);
    // The record's id differs from the exception's on purpose.
    EXPECT_EQ(g_OutOfMemoryException.GetMessageId(), 42502u);
    EXPECT_EQ(pError->messageId, 42256u);
    EXPECT_EQ(Text(pError->message), u"ostrel failed to allocate memory.\n");
    FreeErrorStruct(pError);  // must leave the static record intact
    EXPECT_EQ(OutOfMemoryRecord()->errCode, 106u);
    FreeErrorStruct(nullptr);
}

TEST(ErrorManagerTest, LastFailureOfAThreadWinsAndIsTakenOnce) {
    CSmartRefCountPtr<ErrorManager> pManager = new ErrorManager();
    pManager->SetThreadError(SSOException(100, 42254));
    pManager->SetThreadError(SSOException(103, 61775));
    Plugin_Exception_Struct* pError = pManager->GetThreadError();
    ASSERT_NE(pError, nullptr);
    EXPECT_EQ(pError->errCode, 103u);
    EXPECT_EQ(pError->messageId, 61775u);
    EXPECT_EQ(pManager->GetThreadError(), nullptr);
    FreeErrorStruct(pError);
    // The first record was forgotten by the slot; the manager frees it (a leak check would tell).
}

TEST(ErrorManagerTest, RecordsArePerThread) {
    CSmartRefCountPtr<ErrorManager> pManager = new ErrorManager();
    pManager->SetThreadError(SSOException(101));
    Plugin_Exception_Struct* pOther = reinterpret_cast<Plugin_Exception_Struct*>(1);
    std::thread([&] { pOther = pManager->GetThreadError(); }).join();
    EXPECT_EQ(pOther, nullptr);
    Plugin_Exception_Struct* pMine = pManager->GetThreadError();
    ASSERT_NE(pMine, nullptr);
    EXPECT_EQ(pMine->errCode, 101u);
    FreeErrorStruct(pMine);
}

TEST(ErrorManagerTest, RecordsOfThreadsThatEndedAreFreedWithTheManager) {
    CSmartRefCountPtr<ErrorManager> pManager = new ErrorManager();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] { pManager->SetThreadError(SSOException(100, 61778, Strings({OSTREL_T("GSSAPI")}))); });
    }
    for (auto& t : threads) {
        t.join();
    }
    pManager = nullptr;  // four records never fetched: the leak checker must stay quiet
}

TEST(ErrorManagerTest, MessageTextForKnownAndUnknownIds) {
    CSmartRefCountPtr<ErrorManager> pManager = new ErrorManager();
    ostrel_char* pText = pManager->GetMessageContent(61778);
    ASSERT_NE(pText, nullptr);
    EXPECT_NE(Text(pText).find(u"%1"), std::u16string::npos);
    std::free(pText);
    EXPECT_EQ(pManager->GetMessageContent(12345), nullptr);
}

TEST(IntCast, NarrowsOnlyWhatFits) {
    EXPECT_EQ(int_cast<uint32_t>(uint64_t{4294967295u}), 4294967295u);
    try {
        (void)int_cast<uint32_t>(uint64_t{4294967296u});
        FAIL() << "no exception";
    } catch (const PositiveOverflowException& e) {
        EXPECT_EQ(e.kind(), 1);
        EXPECT_EQ(e.value(), 4294967296u);
        EXPECT_STREQ(e.what(), "int_cast error: positive overflow");
        EXPECT_STREQ(e.sourceType(), typeid(uint64_t).name());
        EXPECT_STREQ(e.targetType(), typeid(uint32_t).name());
    }
    EXPECT_THROW((void)int_cast<uint32_t>(int64_t{-1}), UnsignedNegativeException);
    EXPECT_THROW((void)int_cast<int32_t>(int64_t{-2147483649LL}), NegativeOverflowException);
    EXPECT_EQ(int_cast<int32_t>(int64_t{-2147483648LL}), INT32_MIN);
}

TEST(IntCast, MessagesKeepTheirExactWording) {
    EXPECT_STREQ(NegativeOverflowException(0, "a", "b").what(), "int_cast error: negative overflow ");
    EXPECT_STREQ(UnsignedNegativeException(0, "a", "b").what(),
                 "int cast error: storing negative in unsigned data type");
    // The base's own text is what std::runtime_error was built with.
    const IntCastException& e = PositiveOverflowException(0, "a", "b");
    EXPECT_STREQ(e.std::runtime_error::what(), "int cast error");
}
