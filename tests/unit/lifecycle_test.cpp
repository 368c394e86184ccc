// The object behind the exports, in-process: what a host cannot see from outside.
#include <gtest/gtest.h>

#include "authentication/ostrel/Parameters.h"
#include "authentication/ostrel/SSOImpl.h"
#include "support/TraceCapture.h"

using namespace ostrel;

TEST(SSOImplTest, SurplusShutdownReportsAndStaysHarmless) {
    ostrel_test::TraceCapture capture;
    CSmartRefCountPtr<SSOImpl> pImpl = SSOImpl::instance();
    ASSERT_TRUE(pImpl->Initialize());
    pImpl->Shutdown();
    EXPECT_EQ(capture.count("Called more times than Initialize()"), 0u);
    pImpl->Shutdown();
    EXPECT_EQ(capture.count("ssoplugin: SSOImpl::Shutdown() -- Called more times than Initialize()!"), 1u);
    EXPECT_TRUE(capture.has("ASSERT(m_nInitRefcount > 0)"));
    // Still the same object, and it starts again.
    EXPECT_EQ(SSOImpl::instance().get(), pImpl.get());
    ASSERT_TRUE(pImpl->Initialize());
    pImpl->Shutdown();
}

TEST(SSOImplTest, ErrorFetchClearsAStaleOutputFirst) {
    ostrel_test::TraceCapture capture;
    CSmartRefCountPtr<SSOImpl> pImpl = SSOImpl::instance();
    Plugin_Exception_Struct stale{};
    Plugin_Exception_Struct* pError = &stale;
    // Uninitialised: the output is still cleared, and the answer is 100.
    EXPECT_EQ(pImpl->GetError(100, &pError), 100u);
    EXPECT_EQ(pError, nullptr);
    EXPECT_TRUE(capture.has("Assigning error to a non-NULL object; possible memory leak!"));
}

TEST(SSOImplTest, StringsForTheHost) {
    CSmartRefCountPtr<SSOImpl> pImpl = SSOImpl::instance();
    EXPECT_EQ(pImpl->AllocateString(SWCharString()), nullptr);
    ostrel_char* pCopy = pImpl->AllocateString(SWCharString(OSTREL_T("alice")));
    ASSERT_NE(pCopy, nullptr);
    EXPECT_EQ(SWCharString(pCopy), SWCharString(OSTREL_T("alice")));
    EXPECT_EQ(SSOFreeString(pCopy), 0u);
    ostrel_test::TraceCapture capture;
    pImpl->FreeString(nullptr);
    EXPECT_TRUE(capture.has("ssoplugin: SSOImpl::FreeString() -- Called with a NULL buffer; doing nothing!"));
}

TEST(SSOImplTest, FreeParametersReleasesASequenceTheLibraryMade) {
    Parameters params;
    params.AddParameter(SWCharString(OSTREL_T("b")), SWCharString(OSTREL_T("2")));
    params.AddParameter(SWCharString(OSTREL_T("a")), true);
    ParasSeq* pSeq = nullptr;
    params.ToParasSeq(&pSeq);
    ASSERT_NE(pSeq, nullptr);
    // Works whatever the state: no initialisation needed, and the leak checker sees all freed.
    EXPECT_EQ(SSOFreeParameters(pSeq), 0u);
}
