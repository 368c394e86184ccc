/*
 * A stand-in GSS-API library for the binding tests: the ten entry points with
 * the standard C signatures, answers scripted by the test, and counts of what
 * it handed out and got back, so that a test can prove nothing leaks.
 *
 * The test reaches the fake_gss_* controls by loading this same file, which
 * gives it the handle the code under test holds (it is loaded RTLD_LOCAL).
 *
 * Built twice: complete, and with FAKE_GSS_OMIT_RELEASE_BUFFER, which leaves
 * out one entry point.
 */
#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L
#endif

#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <stdio.h>

#if defined(_WIN32)
#include <windows.h>
#define FAKE_EXPORT __declspec(dllexport)
#else
#include <time.h>
#define FAKE_EXPORT __attribute__((visibility("default")))
#endif

/* What is needed of the standard, declared here on purpose. */
typedef uint32_t OM_uint32;
typedef struct fake_name* gss_name_t;
typedef struct fake_ctx* gss_ctx_id_t;
typedef struct fake_cred* gss_cred_id_t;
typedef struct gss_channel_bindings_struct* gss_channel_bindings_t;
typedef struct gss_OID_set_desc_struct* gss_OID_set;
typedef int gss_cred_usage_t;
typedef struct gss_buffer_desc_struct {
    size_t length;
    void* value;
} gss_buffer_desc, *gss_buffer_t;
typedef struct gss_OID_desc_struct {
    OM_uint32 length;
    void* elements;
} gss_OID_desc, *gss_OID;

#define GSS_S_COMPLETE 0u
#define GSS_S_BAD_NAME (2u << 16)
#define GSS_S_NO_CONTEXT (8u << 16)
#define GSS_S_NO_CRED (7u << 16)
#define GSS_S_FAILURE (13u << 16)
#define GSS_S_CALL_INACCESSIBLE_WRITE (2u << 24)
#define GSS_C_GSS_CODE 1
#define GSS_C_MECH_CODE 2

#define NAME_MAGIC 0x4e414d45u
#define CTX_MAGIC 0x43545854u
#define CRED_MAGIC 0x43524544u

struct fake_name {
    unsigned magic;
    size_t length;
    char text[1];
};
struct fake_ctx {
    unsigned magic;
};
struct fake_cred {
    unsigned magic;
    gss_cred_usage_t usage;
};

enum {
    E_ACQUIRE_CRED,
    E_RELEASE_CRED,
    E_INIT_SEC_CONTEXT,
    E_ACCEPT_SEC_CONTEXT,
    E_DELETE_SEC_CONTEXT,
    E_IMPORT_NAME,
    E_DISPLAY_NAME,
    E_DISPLAY_STATUS,
    E_RELEASE_NAME,
    E_RELEASE_BUFFER,
    E_COUNT
};
static const char* const s_entryNames[E_COUNT] = {
    "gss_acquire_cred",    "gss_release_cred",  "gss_init_sec_context", "gss_accept_sec_context",
    "gss_delete_sec_context", "gss_import_name", "gss_display_name",     "gss_display_status",
    "gss_release_name",    "gss_release_buffer"};

/* Results as seen by the test. */
typedef struct fake_gss_record {
    long names;    /* outstanding, per kind */
    long buffers;
    long creds;
    long contexts;
    /* the last gss_import_name */
    size_t import_length;
    char import_text[256];
    int import_type_is_user_name;
    /* the last gss_acquire_cred */
    gss_cred_usage_t acquire_usage;
    OM_uint32 acquire_time_req;
    int acquire_default_mechs;
    /* the last gss_accept_sec_context */
    int accept_input_present;
    size_t accept_input_length;
    int accept_context_was_new;
    int accept_cred_valid;
} fake_gss_record;

/* Counters shared by calls that may run side by side. */
static atomic_long s_calls[E_COUNT];
static atomic_long s_names, s_buffers, s_creds, s_contexts;
static atomic_int s_inFlight, s_maxInFlight;
static atomic_int s_delayUs;
static atomic_int s_rendezvous;
static atomic_int s_rendezvousTimeoutMs;
static atomic_int s_rendezvousOpen;

/* Script and records: guarded by a spin lock, since a thread-safe binding calls in concurrently. */
static atomic_flag s_lock = ATOMIC_FLAG_INIT;
static void (*s_hook)(const char*);

#define MAX_SCRIPT 8
typedef struct accept_step {
    OM_uint32 major;
    OM_uint32 minor;
    unsigned char token[64];
    size_t tokenLength;
    int hasName;
    char name[128];
} accept_step;
static accept_step s_script[MAX_SCRIPT];
static int s_scriptHead, s_scriptCount;

static OM_uint32 s_acquireMajor, s_acquireMinor;
static int s_acquireLeavesCred;
static OM_uint32 s_importMajor;
static int s_importLeavesName;
static int s_displayStatusFailMask;
static unsigned s_statusPieces = 1;
static fake_gss_record s_record;

static void Lock(void) {
    while (atomic_flag_test_and_set_explicit(&s_lock, memory_order_acquire)) {
    }
}
static void Unlock(void) { atomic_flag_clear_explicit(&s_lock, memory_order_release); }

static void SleepUs(int us) {
    if (us <= 0) {
        return;
    }
#if defined(_WIN32)
    Sleep((DWORD)((us + 999) / 1000));
#else
    struct timespec ts;
    ts.tv_sec = us / 1000000;
    ts.tv_nsec = (long)(us % 1000000) * 1000L;
    nanosleep(&ts, NULL);
#endif
}

/* Every entry point starts here: counted, the test's hook, then inside the library. */
static void Enter(int entry) {
    void (*hook)(const char*);
    int now, seen, waited;
    atomic_fetch_add(&s_calls[entry], 1);
    Lock();
    hook = s_hook;
    Unlock();
    if (hook != NULL) {
        hook(s_entryNames[entry]); /* may throw: this file is built to let that pass */
    }
    now = atomic_fetch_add(&s_inFlight, 1) + 1;
    seen = atomic_load(&s_maxInFlight);
    while (now > seen && !atomic_compare_exchange_weak(&s_maxInFlight, &seen, now)) {
    }
    /* A meeting point: wait, boundedly, until that many calls are inside at once.
       Met or timed out, it's over: later calls don't wait. */
    if (atomic_load(&s_rendezvous) > 1 && !atomic_load(&s_rendezvousOpen)) {
        for (waited = 0; waited < atomic_load(&s_rendezvousTimeoutMs) * 10; ++waited) {
            if (atomic_load(&s_inFlight) >= atomic_load(&s_rendezvous) || atomic_load(&s_rendezvousOpen)) {
                break;
            }
            SleepUs(100);
        }
        atomic_store(&s_rendezvousOpen, 1);
    }
    SleepUs(atomic_load(&s_delayUs));
}

static void Leave(void) { atomic_fetch_sub(&s_inFlight, 1); }

static void* CopyBytes(const void* p, size_t n) {
    void* q = malloc(n > 0 ? n : 1);
    if (q != NULL && n > 0) {
        memcpy(q, p, n);
    }
    return q;
}

/* A buffer handed out: exactly its length, no terminator, so over-reads show. */
static int HandOut(gss_buffer_t out, const void* p, size_t n) {
    out->value = CopyBytes(p, n);
    if (out->value == NULL) {
        out->length = 0;
        return 0;
    }
    out->length = n;
    atomic_fetch_add(&s_buffers, 1);
    return 1;
}

static gss_name_t NewName(const char* text, size_t n) {
    struct fake_name* name = (struct fake_name*)malloc(sizeof(struct fake_name) + n);
    if (name == NULL) {
        return NULL;
    }
    name->magic = NAME_MAGIC;
    name->length = n;
    if (n > 0) {
        memcpy(name->text, text, n);
    }
    name->text[n] = 0;
    atomic_fetch_add(&s_names, 1);
    return name;
}

static gss_ctx_id_t NewContext(void) {
    struct fake_ctx* ctx = (struct fake_ctx*)malloc(sizeof(struct fake_ctx));
    if (ctx != NULL) {
        ctx->magic = CTX_MAGIC;
        atomic_fetch_add(&s_contexts, 1);
    }
    return ctx;
}

static gss_cred_id_t NewCred(gss_cred_usage_t usage) {
    struct fake_cred* cred = (struct fake_cred*)malloc(sizeof(struct fake_cred));
    if (cred != NULL) {
        cred->magic = CRED_MAGIC;
        cred->usage = usage;
        atomic_fetch_add(&s_creds, 1);
    }
    return cred;
}

/* ---- controls ---- */

FAKE_EXPORT void fake_gss_reset(void) {
    int i;
    for (i = 0; i < E_COUNT; ++i) {
        atomic_store(&s_calls[i], 0);
    }
    atomic_store(&s_names, 0);
    atomic_store(&s_buffers, 0);
    atomic_store(&s_creds, 0);
    atomic_store(&s_contexts, 0);
    atomic_store(&s_inFlight, 0);
    atomic_store(&s_maxInFlight, 0);
    atomic_store(&s_delayUs, 0);
    atomic_store(&s_rendezvous, 0);
    atomic_store(&s_rendezvousTimeoutMs, 0);
    atomic_store(&s_rendezvousOpen, 0);
    Lock();
    s_hook = NULL;
    s_scriptHead = s_scriptCount = 0;
    s_acquireMajor = s_acquireMinor = 0;
    s_acquireLeavesCred = 0;
    s_importMajor = 0;
    s_importLeavesName = 0;
    s_displayStatusFailMask = 0;
    s_statusPieces = 1;
    memset(&s_record, 0, sizeof s_record);
    Unlock();
}

/* Queues the answer of the next gss_accept_sec_context; a NULL client name gives none. */
FAKE_EXPORT int fake_gss_script_accept(OM_uint32 major, OM_uint32 minor, const void* token, size_t tokenLength,
                                       const char* clientName) {
    accept_step* step;
    int ok = 0;
    Lock();
    if (s_scriptCount < MAX_SCRIPT && tokenLength <= sizeof step->token &&
        (clientName == NULL || strlen(clientName) < sizeof step->name)) {
        step = &s_script[(s_scriptHead + s_scriptCount) % MAX_SCRIPT];
        memset(step, 0, sizeof *step);
        step->major = major;
        step->minor = minor;
        if (tokenLength > 0) {
            memcpy(step->token, token, tokenLength);
        }
        step->tokenLength = tokenLength;
        step->hasName = clientName != NULL;
        if (clientName != NULL) {
            strcpy(step->name, clientName);
        }
        ++s_scriptCount;
        ok = 1;
    }
    Unlock();
    return ok;
}

/* gss_acquire_cred answers major; leaveCred hands out a credential all the same. */
FAKE_EXPORT void fake_gss_fail_acquire(OM_uint32 major, OM_uint32 minor, int leaveCred) {
    Lock();
    s_acquireMajor = major;
    s_acquireMinor = minor;
    s_acquireLeavesCred = leaveCred;
    Unlock();
}

FAKE_EXPORT void fake_gss_fail_import(OM_uint32 major, int leaveName) {
    Lock();
    s_importMajor = major;
    s_importLeavesName = leaveName;
    Unlock();
}

/* Bit 0: the GSS code can't be read; bit 1: the mechanism code can't. */
FAKE_EXPORT void fake_gss_fail_display_status(int mask) {
    Lock();
    s_displayStatusFailMask = mask;
    Unlock();
}

/* How many pieces a GSS-code message comes in. */
FAKE_EXPORT void fake_gss_set_status_pieces(unsigned pieces) {
    Lock();
    s_statusPieces = pieces > 0 ? pieces : 1;
    Unlock();
}

FAKE_EXPORT void fake_gss_set_call_delay_us(int us) { atomic_store(&s_delayUs, us); }

/* Calls wait, up to timeoutMs, until n of them are inside at once; once only. */
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

FAKE_EXPORT long fake_gss_calls(const char* entry) {
    long total = 0;
    int i;
    for (i = 0; i < E_COUNT; ++i) {
        if (entry == NULL || strcmp(entry, s_entryNames[i]) == 0) {
            total += atomic_load(&s_calls[i]);
        }
    }
    return total;
}

/* Lets the test check that its copy of the record's layout matches. */
FAKE_EXPORT size_t fake_gss_record_size(void) { return sizeof(fake_gss_record); }

FAKE_EXPORT void fake_gss_record_get(fake_gss_record* out) {
    Lock();
    *out = s_record;
    Unlock();
    out->names = atomic_load(&s_names);
    out->buffers = atomic_load(&s_buffers);
    out->creds = atomic_load(&s_creds);
    out->contexts = atomic_load(&s_contexts);
}

/* ---- the ten entry points ---- */

FAKE_EXPORT OM_uint32 gss_acquire_cred(OM_uint32* minor_status, gss_name_t desired_name, OM_uint32 time_req,
                                       gss_OID_set desired_mechs, gss_cred_usage_t cred_usage,
                                       gss_cred_id_t* output_cred_handle, gss_OID_set* actual_mechs,
                                       OM_uint32* time_rec) {
    OM_uint32 major, minor;
    int leave;
    Enter(E_ACQUIRE_CRED);
    Lock();
    s_record.acquire_usage = cred_usage;
    s_record.acquire_time_req = time_req;
    s_record.acquire_default_mechs = desired_mechs == NULL;
    major = s_acquireMajor;
    minor = s_acquireMinor;
    leave = s_acquireLeavesCred;
    Unlock();
    if (actual_mechs != NULL) {
        *actual_mechs = NULL;
    }
    if (time_rec != NULL) {
        *time_rec = 0;
    }
    *minor_status = minor;
    if (output_cred_handle == NULL) {
        major = GSS_S_CALL_INACCESSIBLE_WRITE;
    } else if (desired_name != NULL && desired_name->magic != NAME_MAGIC) {
        major = GSS_S_BAD_NAME;
    } else if (major == GSS_S_COMPLETE || leave) {
        *output_cred_handle = NewCred(cred_usage);
    }
    Leave();
    return major;
}

FAKE_EXPORT OM_uint32 gss_release_cred(OM_uint32* minor_status, gss_cred_id_t* cred_handle) {
    OM_uint32 major = GSS_S_COMPLETE;
    Enter(E_RELEASE_CRED);
    *minor_status = 0;
    if (cred_handle == NULL || *cred_handle == NULL || (*cred_handle)->magic != CRED_MAGIC) {
        major = GSS_S_NO_CRED;
    } else {
        (*cred_handle)->magic = 0;
        free(*cred_handle);
        *cred_handle = NULL;
        atomic_fetch_sub(&s_creds, 1);
    }
    Leave();
    return major;
}

/* The initiator is never reached by the system; enough to be called. */
FAKE_EXPORT OM_uint32 gss_init_sec_context(OM_uint32* minor_status, gss_cred_id_t initiator_cred_handle,
                                           gss_ctx_id_t* context_handle, gss_name_t target_name, gss_OID mech_type,
                                           OM_uint32 req_flags, OM_uint32 time_req,
                                           gss_channel_bindings_t input_chan_bindings, gss_buffer_t input_token,
                                           gss_OID* actual_mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                           OM_uint32* time_rec) {
    (void)initiator_cred_handle;
    (void)target_name;
    (void)mech_type;
    (void)req_flags;
    (void)time_req;
    (void)input_chan_bindings;
    (void)input_token;
    Enter(E_INIT_SEC_CONTEXT);
    *minor_status = 0;
    if (*context_handle == NULL) {
        *context_handle = NewContext();
    }
    if (actual_mech_type != NULL) {
        *actual_mech_type = NULL;
    }
    output_token->length = 0;
    output_token->value = NULL;
    if (ret_flags != NULL) {
        *ret_flags = 0;
    }
    if (time_rec != NULL) {
        *time_rec = 0;
    }
    Leave();
    return GSS_S_COMPLETE;
}

FAKE_EXPORT OM_uint32 gss_accept_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                             gss_cred_id_t acceptor_cred_handle, gss_buffer_t input_token_buffer,
                                             gss_channel_bindings_t input_chan_bindings, gss_name_t* src_name,
                                             gss_OID* mech_type, gss_buffer_t output_token, OM_uint32* ret_flags,
                                             OM_uint32* time_rec, gss_cred_id_t* delegated_cred_handle) {
    accept_step step;
    int scripted = 0;
    (void)input_chan_bindings;
    Enter(E_ACCEPT_SEC_CONTEXT);
    Lock();
    s_record.accept_input_present = input_token_buffer != NULL;
    s_record.accept_input_length = input_token_buffer != NULL ? input_token_buffer->length : 0;
    s_record.accept_context_was_new = *context_handle == NULL;
    s_record.accept_cred_valid = acceptor_cred_handle != NULL && acceptor_cred_handle->magic == CRED_MAGIC;
    if (s_scriptCount > 0) {
        step = s_script[s_scriptHead];
        s_scriptHead = (s_scriptHead + 1) % MAX_SCRIPT;
        --s_scriptCount;
        scripted = 1;
    }
    Unlock();
    output_token->length = 0;
    output_token->value = NULL;
    if (mech_type != NULL) {
        *mech_type = NULL;
    }
    if (ret_flags != NULL) {
        *ret_flags = 0;
    }
    if (time_rec != NULL) {
        *time_rec = 0;
    }
    if (delegated_cred_handle != NULL) {
        *delegated_cred_handle = NULL;
    }
    if (!scripted) {
        *minor_status = 0xBAD;
        Leave();
        return GSS_S_FAILURE;
    }
    /* A handle that isn't ours means the caller lost the context between passes. */
    if (*context_handle != NULL && (*context_handle)->magic != CTX_MAGIC) {
        *minor_status = 0;
        Leave();
        return GSS_S_NO_CONTEXT;
    }
    /* The context exists from the first call on, also when that call fails. */
    if (*context_handle == NULL) {
        *context_handle = NewContext();
    }
    if (step.hasName && src_name != NULL) {
        *src_name = NewName(step.name, strlen(step.name));
    }
    if (step.tokenLength > 0) {
        HandOut(output_token, step.token, step.tokenLength);
    }
    *minor_status = step.minor;
    Leave();
    return step.major;
}

FAKE_EXPORT OM_uint32 gss_delete_sec_context(OM_uint32* minor_status, gss_ctx_id_t* context_handle,
                                             gss_buffer_t output_token) {
    OM_uint32 major = GSS_S_COMPLETE;
    Enter(E_DELETE_SEC_CONTEXT);
    *minor_status = 0;
    if (output_token != NULL) {
        output_token->length = 0;
        output_token->value = NULL;
    }
    if (context_handle == NULL || *context_handle == NULL || (*context_handle)->magic != CTX_MAGIC) {
        major = GSS_S_NO_CONTEXT;
    } else {
        (*context_handle)->magic = 0;
        free(*context_handle);
        *context_handle = NULL;
        atomic_fetch_sub(&s_contexts, 1);
    }
    Leave();
    return major;
}

FAKE_EXPORT OM_uint32 gss_import_name(OM_uint32* minor_status, gss_buffer_t input_name_buffer,
                                      gss_OID input_name_type, gss_name_t* output_name) {
    /* 1.2.840.113554.1.2.1.1 */
    static const unsigned char userName[10] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x01, 0x01};
    OM_uint32 major;
    int leave;
    size_t n;
    Enter(E_IMPORT_NAME);
    n = input_name_buffer->length;
    Lock();
    s_record.import_length = n;
    memset(s_record.import_text, 0, sizeof s_record.import_text);
    if (n > 0) {
        memcpy(s_record.import_text, input_name_buffer->value,
               n < sizeof s_record.import_text ? n : sizeof s_record.import_text - 1);
    }
    s_record.import_type_is_user_name = input_name_type != NULL && input_name_type->length == sizeof userName &&
                                        memcmp(input_name_type->elements, userName, sizeof userName) == 0;
    major = s_importMajor;
    leave = s_importLeavesName;
    Unlock();
    *minor_status = 0;
    if (major == GSS_S_COMPLETE || leave) {
        *output_name = NewName((const char*)input_name_buffer->value, n);
    }
    Leave();
    return major;
}

FAKE_EXPORT OM_uint32 gss_display_name(OM_uint32* minor_status, gss_name_t input_name,
                                       gss_buffer_t output_name_buffer, gss_OID* output_name_type) {
    OM_uint32 major = GSS_S_COMPLETE;
    Enter(E_DISPLAY_NAME);
    *minor_status = 0;
    if (output_name_type != NULL) {
        *output_name_type = NULL;
    }
    output_name_buffer->length = 0;
    output_name_buffer->value = NULL;
    if (input_name == NULL || input_name->magic != NAME_MAGIC) {
        major = GSS_S_BAD_NAME;
    } else {
        HandOut(output_name_buffer, input_name->text, input_name->length);
    }
    Leave();
    return major;
}

FAKE_EXPORT OM_uint32 gss_display_status(OM_uint32* minor_status, OM_uint32 status_value, int status_type,
                                         gss_OID mech_type, OM_uint32* message_context, gss_buffer_t status_string) {
    char text[64];
    int failMask;
    unsigned pieces;
    OM_uint32 major = GSS_S_COMPLETE;
    (void)mech_type;
    Enter(E_DISPLAY_STATUS);
    Lock();
    failMask = s_displayStatusFailMask;
    pieces = s_statusPieces;
    Unlock();
    *minor_status = 0;
    status_string->length = 0;
    status_string->value = NULL;
    if ((status_type == GSS_C_GSS_CODE && (failMask & 1)) || (status_type == GSS_C_MECH_CODE && (failMask & 2))) {
        major = GSS_S_FAILURE;
    } else if (status_type == GSS_C_GSS_CODE) {
        const unsigned piece = *message_context + 1;
        snprintf(text, sizeof text, "major 0x%08x part %u/%u", (unsigned)status_value, piece, pieces);
        HandOut(status_string, text, strlen(text));
        *message_context = piece < pieces ? piece : 0;
    } else {
        snprintf(text, sizeof text, "minor %u", (unsigned)status_value);
        HandOut(status_string, text, strlen(text));
        *message_context = 0;
    }
    Leave();
    return major;
}

FAKE_EXPORT OM_uint32 gss_release_name(OM_uint32* minor_status, gss_name_t* input_name) {
    OM_uint32 major = GSS_S_COMPLETE;
    Enter(E_RELEASE_NAME);
    *minor_status = 0;
    if (input_name == NULL || *input_name == NULL || (*input_name)->magic != NAME_MAGIC) {
        major = GSS_S_BAD_NAME;
    } else {
        (*input_name)->magic = 0;
        free(*input_name);
        *input_name = NULL;
        atomic_fetch_sub(&s_names, 1);
    }
    Leave();
    return major;
}

#if !defined(FAKE_GSS_OMIT_RELEASE_BUFFER)
FAKE_EXPORT OM_uint32 gss_release_buffer(OM_uint32* minor_status, gss_buffer_t buffer) {
    Enter(E_RELEASE_BUFFER);
    *minor_status = 0;
    if (buffer != NULL && buffer->value != NULL) {
        free(buffer->value);
        atomic_fetch_sub(&s_buffers, 1);
    }
    if (buffer != NULL) {
        buffer->value = NULL;
        buffer->length = 0;
    }
    Leave();
    return GSS_S_COMPLETE;
}
#endif
