/* The boundary header must stand alone in strict C11. */
#include "ostrel/ostrel.h"

_Static_assert(sizeof(ParasSeq) == 32, "ParasSeq is 32 bytes");
_Static_assert(sizeof(ostrel_char) == 2, "boundary text is 16-bit");
_Static_assert(sizeof(Plugin_Exception_Struct) == 24, "error record layout");

static const ostrel_char* const s_keys[] = {WP_SI_SERVER_SSPI_SPN_W, WP_SI_CACHE_SECCONTEXT_W, SSO_PROVIDER_GSSAPI};

unsigned int (*const s_init)(void) = SSOInitPackage;
unsigned int (*const s_accept)(const ostrel_char*, const ostrel_char*, const void*, size_t, void**, size_t*,
                               ParasSeq**, ostrel_char**) = SSOAcceptLogin;

const ostrel_char* ostrel_header_c11_key(int i) { return s_keys[i]; }
