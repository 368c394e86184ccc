/* A stand-in GSS-API library: the ten entry points, answers scripted by the test, and strict about handles: it
 * refuses any it did not hand out, and counts those outstanding. The test reaches the fake_gss_* controls by loading
 * this same file, which gives it the handle the code under test holds. Built twice: complete, and without
 * gss_release_buffer (FAKE_GSS_OMIT_RELEASE_BUFFER). */
#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

/* An entry point takes whatever the standard says, and uses what it needs. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#if defined(_WIN32)
#include <windows.h>
#define FAKE_EXPORT __declspec(dllexport)
#else
#include <time.h>
#define FAKE_EXPORT __attribute__((visibility("default")))
#endif

/* What is needed of the standard, declared here on purpose; the three kinds of handle share one shape. */
typedef uint32_t OM_uint32;
typedef struct fake_obj* gss_name_t;
typedef struct fake_obj* gss_ctx_id_t;
typedef struct fake_obj* gss_cred_id_t;
typedef struct gss_channel_bindings_struct* gss_channel_bindings_t;
typedef struct gss_OID_set_desc_struct* gss_OID_set;
typedef int gss_cred_usage_t;
typedef struct {
    size_t length;
    void* value;
} gss_buffer_desc, *gss_buffer_t;
typedef struct {
    OM_uint32 length;
    void* elements;
} gss_OID_desc, *gss_OID;

#define GSS_S_COMPLETE 0u
#define GSS_S_BAD_NAME (2u << 16)
#define GSS_S_NO_CRED (7u << 16)
#define GSS_S_NO_CONTEXT (8u << 16)
#define GSS_S_FAILURE (13u << 16)
#define GSS_C_GSS_CODE 1

/* A magic per kind, so that a handle of one kind passed as another is refused as well. */
enum { K_NAME, K_CRED, K_CONTEXT, K_BUFFER, K_COUNT };
static const unsigned s_magic[K_BUFFER] = {0x4e414d45u, 0x43524544u, 0x43545854u};
struct fake_obj {
    unsigned magic;
    size_t length;
    char text[1];
};

#define E_COUNT 10
static const char* const s_entryNames[E_COUNT] = {
    "gss_acquire_cred", "gss_release_cred", "gss_init_sec_context", "gss_accept_sec_context", "gss_delete_sec_context",
    "gss_import_name",  "gss_display_name", "gss_display_status",   "gss_release_name",       "gss_release_buffer"};

static atomic_long s_calls[E_COUNT];
static atomic_long s_outstanding[K_COUNT];
static atomic_int s_inFlight, s_maxInFlight, s_rendezvous, s_rendezvousTimeoutMs, s_rendezvousOpen;

/* The rest is touched by calls side by side (a thread-safe binding): under a spin lock. */
static atomic_flag s_lock = ATOMIC_FLAG_INIT;
static void (*s_hook)(const char*);
typedef struct {
    OM_uint32 major;
    char token[64];
    size_t tokenLength;
    int hasName;
    char name[64];
} accept_step;
static accept_step s_script[4];
static int s_scriptNext, s_scriptCount;
/* One entry point may be told to fail; with failLeave it hands out its object all the same. */
static int s_failEntry = -1, s_failLeave;
static OM_uint32 s_failMajor;
static char s_lastImport[128];
static int s_lastImportAsUser;
static atomic_int s_lastUsage;

static void Lock(void) {
    while (atomic_flag_test_and_set_explicit(&s_lock, memory_order_acquire)) {
    }
}
static void Unlock(void) { atomic_flag_clear_explicit(&s_lock, memory_order_release); }

static void SleepOneMs(void) {
#if defined(_WIN32)
    Sleep(1);
#else
    struct timespec ts = {0, 1000000L};
    nanosleep(&ts, NULL);
#endif
}

static int EntryOf(const char* name) {
    int i;
    for (i = 0; i < E_COUNT; ++i) {
        if (name != NULL && strcmp(name, s_entryNames[i]) == 0) {
            return i;
        }
    }
    return -1;
}

/* Every entry point starts here: counted, the test's hook, then inside the library; gives the answer it
   was told to fail with, if any, and whether to hand out its object all the same. */
static OM_uint32 Enter(const char* name, int* leave) {
    const int entry = EntryOf(name);
    void (*hook)(const char*);
    OM_uint32 major = GSS_S_COMPLETE;
    int now, seen, waited;
    atomic_fetch_add(&s_calls[entry], 1);
    Lock();
    hook = s_hook;
    if (entry == s_failEntry) {
        major = s_failMajor;
    }
    if (leave != NULL) {
        *leave = s_failLeave;
    }
    Unlock();
    if (hook != NULL) {
        hook(name); /* may throw: this file is built to let that pass */
    }
    now = atomic_fetch_add(&s_inFlight, 1) + 1;
    seen = atomic_load(&s_maxInFlight);
    while (now > seen && !atomic_compare_exchange_weak(&s_maxInFlight, &seen, now)) {
    }
    /* The meeting point: a call waits, boundedly, until that many are inside at once; then it's open. */
    if (atomic_load(&s_rendezvous) > 1 && !atomic_load(&s_rendezvousOpen)) {
        for (waited = 0; waited < atomic_load(&s_rendezvousTimeoutMs) && !atomic_load(&s_rendezvousOpen) &&
                         atomic_load(&s_inFlight) < atomic_load(&s_rendezvous);
             ++waited) {
            SleepOneMs();
        }
        atomic_store(&s_rendezvousOpen, 1);
    }
    return major;
}

static OM_uint32 Leave(OM_uint32 major) {
    atomic_fetch_sub(&s_inFlight, 1);
    return major;
}

static struct fake_obj* New(int kind, const void* text, size_t n) {
    struct fake_obj* o = (struct fake_obj*)malloc(sizeof *o + n);
    o->magic = s_magic[kind];
    o->length = n;
    if (n > 0) {
        memcpy(o->text, text, n);
    }
    o->text[n] = 0;
    atomic_fetch_add(&s_outstanding[kind], 1);
    return o;
}

static int Ours(const struct fake_obj* o, int kind) { return o != NULL && o->magic == s_magic[kind]; }

static OM_uint32 Release(const char* entry, int kind, OM_uint32* minor_status, struct fake_obj** handle,
                         OM_uint32 refusal) {
    Enter(entry, NULL);
    *minor_status = 0;
    if (handle == NULL || !Ours(*handle, kind)) {
        return Leave(refusal);
    }
    (*handle)->magic = 0;
    free(*handle);
    *handle = NULL;
    atomic_fetch_sub(&s_outstanding[kind], 1);
    return Leave(GSS_S_COMPLETE);
}

/* A buffer handed out: exactly its length, no terminator, so that over-reads show. */
static void HandOut(gss_buffer_t out, const void* p, size_t n) {
    out->value = malloc(n > 0 ? n : 1);
    memcpy(out->value, p, n);
    out->length = n;
    atomic_fetch_add(&s_outstanding[K_BUFFER], 1);
}

/* ---- controls ---- */

FAKE_EXPORT void fake_gss_reset(void) {
    int i;
    for (i = 0; i < E_COUNT; ++i) {
        atomic_store(&s_calls[i], 0);
    }
    for (i = 0; i < K_COUNT; ++i) {
        atomic_store(&s_outstanding[i], 0);
    }
    atomic_store(&s_maxInFlight, 0);
    atomic_store(&s_rendezvous, 0);
    Lock();
    s_hook = NULL;
    s_scriptNext = s_scriptCount = 0;
    s_failEntry = -1;
    s_lastImport[0] = 0;
    s_lastImportAsUser = -1;
    Unlock();
    atomic_store(&s_lastUsage, -1);
}

/* Queues the answer of the next gss_accept_sec_context; a NULL client name gives none. */
FAKE_EXPORT int fake_gss_script_accept(OM_uint32 major, const void* token, size_t tokenLength, const char* name) {
    accept_step* step;
    int ok = 0;
    Lock();
    if (s_scriptCount < 4 && tokenLength <= sizeof step->token && (name == NULL || strlen(name) < 64)) {
        step = &s_script[s_scriptCount++];
        step->major = major;
        memcpy(step->token, token, tokenLength);
        step->tokenLength = tokenLength;
        step->hasName = name != NULL;
        snprintf(step->name, sizeof step->name, "%s", name != NULL ? name : "");
        ok = 1;
    }
    Unlock();
    return ok;
}

/* From now on the entry point answers major (acquire_cred, import_name, display_status); NULL: none. */
FAKE_EXPORT void fake_gss_fail(const char* entry, OM_uint32 major, int leave) {
    Lock();
    s_failEntry = EntryOf(entry);
    s_failMajor = major;
    s_failLeave = leave;
    Unlock();
}

/* The next call waits, up to timeoutMs, until n calls are inside at once. */
FAKE_EXPORT void fake_gss_set_rendezvous(int n, int timeoutMs) {
    atomic_store(&s_rendezvousOpen, 0);
    atomic_store(&s_rendezvousTimeoutMs, timeoutMs);
    atomic_store(&s_rendezvous, n);
}

FAKE_EXPORT int fake_gss_max_concurrent(void) { return atomic_load(&s_maxInFlight); }

/* Runs at the start of every entry point with its name. */
FAKE_EXPORT void fake_gss_set_hook(void (*hook)(const char*)) {
    Lock();
    s_hook = hook;
    Unlock();
}

/* Calls of one entry point; of all of them for NULL; -1 for a name not among them. */
FAKE_EXPORT long fake_gss_calls(const char* entry) {
    long total = 0;
    int i;
    if (entry != NULL) {
        i = EntryOf(entry);
        return i < 0 ? -1 : atomic_load(&s_calls[i]);
    }
    for (i = 0; i < E_COUNT; ++i) {
        total += atomic_load(&s_calls[i]);
    }
    return total;
}

/* Names, credentials, contexts and buffers not given back; one given back twice counts too. */
FAKE_EXPORT long fake_gss_outstanding(void) {
    long total = 0;
    int i;
    for (i = 0; i < K_COUNT; ++i) {
        total += labs(atomic_load(&s_outstanding[i]));
    }
    return total;
}

/* The last name imported, whether as a user name, and the usage of the last credential asked for. */
FAKE_EXPORT void fake_gss_last(char* importText, size_t n, int* importedAsUser, int* usage) {
    Lock();
    snprintf(importText, n, "%s", s_lastImport);
    *importedAsUser = s_lastImportAsUser;
    Unlock();
    *usage = atomic_load(&s_lastUsage);
}

/* ---- the ten entry points ---- */

FAKE_EXPORT OM_uint32 gss_acquire_cred(OM_uint32* minor_status, gss_name_t desired_name, OM_uint32 time_req,
                                       gss_OID_set desired_mechs, gss_cred_usage_t cred_usage,
                                       gss_cred_id_t* output_cred_handle, gss_OID_set* actual_mechs,
                                       OM_uint32* time_rec) {
    int leave;
    const OM_uint32 major = Enter(__func__, &leave);
    atomic_store(&s_lastUsage, cred_usage);
    *minor_status = 0;
    if (!Ours(desired_name, K_NAME)) {
        return Leave(GSS_S_BAD_NAME);
    }
    if (major == GSS_S_COMPLETE || leave) {
        *output_cred_handle = New(K_CRED, "", 0);
    }
    return Leave(major);
}

FAKE_EXPORT OM_uint32 gss_release_cred(OM_uint32* minor_status, gss_cred_id_t* cred_handle) {
    return Release(__func__, K_CRED, minor_status, cred_handle, GSS_S_NO_CRED);
}

/* The system never initiates; enough to be called. */
FAKE_EXPORT OM_uint32 gss_init_sec_context(OM_uint32* minor_status, gss_cred_id_t initiator_cred_handle,
                                           gss_ctx_id_t* context_handle, gss_name_t target_name, gss_OID mech_type,
                                           OM_uint32 req_flags, OM_uint32 time_req,
                                           gss_channel_bindings_t input_chan_bindings, gss_buffer_t input_token,
                                           gss_OID* actual_mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                           OM_uint32* time_rec) {
    Enter(__func__, NULL);
    *minor_status = 0;
    output_token->length = 0;
    output_token->value = NULL;
    return Leave(GSS_S_FAILURE);
}

FAKE_EXPORT OM_uint32 gss_accept_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                             gss_cred_id_t acceptor_cred_handle, gss_buffer_t input_token_buffer,
                                             gss_channel_bindings_t input_chan_bindings, gss_name_t* src_name,
                                             gss_OID* mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                             OM_uint32* time_rec, gss_cred_id_t* delegated_cred_handle) {
    accept_step step = {GSS_S_FAILURE, {0}, 0, 0, {0}}; /* when unscripted */
    Enter(__func__, NULL);
    Lock();
    if (s_scriptNext < s_scriptCount) {
        step = s_script[s_scriptNext++];
    }
    Unlock();
    *minor_status = 0;
    output_token->length = 0;
    output_token->value = NULL;
    if (!Ours(acceptor_cred_handle, K_CRED)) {
        return Leave(GSS_S_NO_CRED);
    }
    /* A handle that isn't ours means the caller lost the context between passes. */
    if (*context_handle != NULL && !Ours(*context_handle, K_CONTEXT)) {
        return Leave(GSS_S_NO_CONTEXT);
    }
    /* The context exists from the first call on, also when that call fails. */
    if (*context_handle == NULL) {
        *context_handle = New(K_CONTEXT, "", 0);
    }
    if (step.hasName && src_name != NULL) {
        *src_name = New(K_NAME, step.name, strlen(step.name));
    }
    if (step.tokenLength > 0) {
        HandOut(output_token, step.token, step.tokenLength);
    }
    return Leave(step.major);
}

FAKE_EXPORT OM_uint32 gss_delete_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                             gss_buffer_t output_token) {
    return Release(__func__, K_CONTEXT, minor_status, context_handle, GSS_S_NO_CONTEXT);
}

FAKE_EXPORT OM_uint32 gss_import_name(OM_uint32* minor_status, gss_buffer_t input_name_buffer, gss_OID input_name_type,
                                      gss_name_t* output_name) {
    /* 1.2.840.113554.1.2.1.1 */
    static const unsigned char userName[10] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x01, 0x01};
    int leave;
    const OM_uint32 major = Enter(__func__, &leave);
    const size_t n = input_name_buffer->length;
    const size_t kept = n < sizeof s_lastImport ? n : sizeof s_lastImport - 1;
    Lock();
    if (kept > 0) {
        memcpy(s_lastImport, input_name_buffer->value, kept);
    }
    s_lastImport[kept] = 0;
    s_lastImportAsUser = input_name_type != NULL && input_name_type->length == sizeof userName &&
                         memcmp(input_name_type->elements, userName, sizeof userName) == 0;
    Unlock();
    *minor_status = 0;
    if (major == GSS_S_COMPLETE || leave) {
        *output_name = New(K_NAME, input_name_buffer->value, n);
    }
    return Leave(major);
}

FAKE_EXPORT OM_uint32 gss_display_name(OM_uint32* minor_status, gss_name_t input_name, gss_buffer_t output_name_buffer,
                                       gss_OID* output_name_type) {
    Enter(__func__, NULL);
    *minor_status = 0;
    output_name_buffer->length = 0;
    output_name_buffer->value = NULL;
    if (!Ours(input_name, K_NAME)) {
        return Leave(GSS_S_BAD_NAME);
    }
    HandOut(output_name_buffer, input_name->text, input_name->length);
    return Leave(GSS_S_COMPLETE);
}

/* A GSS code's text comes in two pieces, a mechanism code's in one. */
FAKE_EXPORT OM_uint32 gss_display_status(OM_uint32* minor_status, OM_uint32 status_value, int status_type,
                                         gss_OID mech_type, OM_uint32* message_context, gss_buffer_t status_string) {
    const OM_uint32 major = Enter(__func__, NULL);
    char text[64];
    *minor_status = 0;
    status_string->length = 0;
    status_string->value = NULL;
    if (major != GSS_S_COMPLETE) {
        return Leave(major);
    }
    if (status_type == GSS_C_GSS_CODE) {
        snprintf(text, sizeof text, "major 0x%08x part %u/2", (unsigned)status_value, (unsigned)*message_context + 1);
        *message_context = *message_context == 0 ? 1 : 0;
    } else {
        snprintf(text, sizeof text, "minor %u", (unsigned)status_value);
        *message_context = 0;
    }
    HandOut(status_string, text, strlen(text));
    return Leave(GSS_S_COMPLETE);
}

FAKE_EXPORT OM_uint32 gss_release_name(OM_uint32* minor_status, gss_name_t* input_name) {
    return Release(__func__, K_NAME, minor_status, input_name, GSS_S_BAD_NAME);
}

#if !defined(FAKE_GSS_OMIT_RELEASE_BUFFER)
FAKE_EXPORT OM_uint32 gss_release_buffer(OM_uint32* minor_status, gss_buffer_t buffer) {
    Enter(__func__, NULL);
    *minor_status = 0;
    if (buffer->value != NULL) {
        free(buffer->value);
        atomic_fetch_sub(&s_outstanding[K_BUFFER], 1);
    }
    buffer->value = NULL;
    buffer->length = 0;
    return Leave(GSS_S_COMPLETE);
}
#endif
