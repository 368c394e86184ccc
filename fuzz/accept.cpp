// Tokens from a peer into SSOAcceptLogin for one provider (OSTREL_FUZZ_PROVIDER): two bytes give the length of the
// first pass's token, the rest is the second pass's, then comes the closing call; a finished login's context is
// used and released. The acceptor reads the keytab of the realm the seeds were made in (OSTREL_FUZZ_REALM).
#include <dlfcn.h>

#include <cstdlib>
#include <tuple>

#include "FuzzInput.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("KRB5_CONFIG", OSTREL_FUZZ_REALM "/krb5.conf", 1);
    setenv("KRB5_KTNAME", "FILE:" OSTREL_FUZZ_REALM "/keytab", 1);
    setenv("KRB5RCACHETYPE", "none", 1);                      // a seed is accepted again and again
    dlopen("libgssapi_krb5.so.2", RTLD_NOW | RTLD_NODELETE);  // so that a report at exit names its frames
    return InitPackage(OSTREL_FUZZ_PROVIDER);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* i_pData, size_t i_nSize) {
    const size_t nFirst = i_nSize < 2 ? 0 : std::min<size_t>(i_nSize - 2, i_pData[0] << 8 | i_pData[1]);
    const size_t nSecond = i_nSize < 2 ? 0 : i_nSize - 2 - nFirst;
    auto [nStatus, key] = Accept(u"", OSTREL_FUZZ_PROVIDER, nFirst ? i_pData + 2 : nullptr, nFirst);
    for (int i = 0; i < 2 && nStatus == SSO_STATUS_CONTINUE; ++i) {
        std::tie(nStatus, key) =
            Accept(key, OSTREL_FUZZ_PROVIDER, i == 0 && nSecond ? i_pData + 2 + nFirst : nullptr, i == 0 ? nSecond : 0);
    }
    if (nStatus == SSO_STATUS_SERVER_DONE && key != SSO_DUMMY_KEY_CACHING_IS_OFF) {
        Check(SSOLookupSecurityContext(key.c_str()));
        if (Check(SSOImpersonate(key.c_str())) == SSO_STATUS_OK) Check(SSORevert(key.c_str()));
        Check(SSOReleaseSecurityContext(key.c_str()));
    }
    return 0;
}
