/* A stand-in GSS-API library: the ten entry points, answers scripted by the test, strict about handles (it refuses
 * any it did not hand out and counts those outstanding). The test reaches the fake_gss_* controls by loading this
 * same file. Built twice: complete, and without gss_release_buffer (FAKE_GSS_OMIT_RELEASE_BUFFER). */
#pragma GCC diagnostic ignored "-Wunused-parameter" /* an entry point takes what the standard says */
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#if defined(_WIN32)
#include <windows.h>
#define FAKE_EXPORT __declspec(dllexport)
#define SLEEP_MS(n) Sleep(n)
#else
#include <unistd.h>
#define FAKE_EXPORT __attribute__((visibility("default")))
#define SLEEP_MS(n) usleep(1000 * (n))
#endif

typedef uint32_t OM_uint32;
typedef struct fake_obj* gss_obj_t; /* names, credentials and contexts share one shape */
typedef struct {
    size_t length;
    void* value;
} gss_buffer_desc, *gss_buffer_t;
typedef struct {
    OM_uint32 length;
    void* elements;
} gss_OID_desc, *gss_OID;
#define BAD_NAME (2u << 16)
#define NO_CRED (7u << 16)
#define NO_CONTEXT (8u << 16)
#define FAILURE (13u << 16)

enum { K_NAME, K_CRED, K_CONTEXT, K_BUFFER, K_COUNT };
struct fake_obj {
    unsigned magic; /* 0xFA4E0000 + kind, so that a handle of one kind passed as another is refused too */
    size_t length;
    char text[1];
};
static const char* const s_names[] = {"gss_acquire_cred", "gss_release_cred", "gss_init_sec_context",
                                      "gss_accept_sec_context", "gss_delete_sec_context", "gss_import_name",
                                      "gss_display_name", "gss_display_status", "gss_release_name",
                                      "gss_release_buffer"};
#define E_COUNT 10
static atomic_long s_calls[E_COUNT], s_out[K_COUNT];
static atomic_int s_inside, s_maxInside, s_meet, s_meetMs, s_lastUsage, s_failEntry = -1, s_failLeave, s_scriptN, s_scriptNext;
static atomic_uint s_failMajor;
static void (*_Atomic s_hook)(const char*);
static struct {
    OM_uint32 major;
    char token[64], name[64];
    size_t tokenLength;
    int hasName;
} s_script[4];
static char s_lastImport[128];
static int s_lastAsUser = -1;

static int EntryOf(const char* name) {
    for (int i = 0; name != NULL && i < E_COUNT; ++i) {
        if (strcmp(name, s_names[i]) == 0) return i;
    }
    return -1;
}

/* Every entry point starts here: counted, the test's hook, then a wait at the meeting point if one is set;
   gives the failure it was told to answer with, if any. */
static OM_uint32 Enter(const char* name) {
    const int entry = EntryOf(name);
    void (*hook)(const char*) = atomic_load(&s_hook);
    atomic_fetch_add(&s_calls[entry], 1);
    if (hook != NULL) hook(name); /* may throw: this file is built to let that pass */
    int now = atomic_fetch_add(&s_inside, 1) + 1, seen = atomic_load(&s_maxInside);
    while (now > seen && !atomic_compare_exchange_weak(&s_maxInside, &seen, now)) {
    }
    for (int waited = 0; waited < atomic_load(&s_meetMs) && atomic_load(&s_inside) < atomic_load(&s_meet); ++waited) {
        SLEEP_MS(1);
    }
    atomic_store(&s_meet, 0); /* met or given up: open from now on */
    return entry == atomic_load(&s_failEntry) ? atomic_load(&s_failMajor) : 0;
}
static OM_uint32 Leave(OM_uint32 major) { return atomic_fetch_sub(&s_inside, 1), major; }

static gss_obj_t New(int kind, const void* text, size_t n) {
    gss_obj_t o = (gss_obj_t)malloc(sizeof *o + n);
    o->magic = 0xFA4E0000u + kind;
    o->length = n;
    memcpy(o->text, text, n);
    o->text[n] = 0;
    atomic_fetch_add(&s_out[kind], 1);
    return o;
}
static int Ours(gss_obj_t o, int kind) { return o != NULL && o->magic == 0xFA4E0000u + kind; }
static OM_uint32 Release(const char* entry, int kind, OM_uint32* minor, gss_obj_t* handle, OM_uint32 refusal) {
    Enter(entry);
    *minor = 0;
    if (handle == NULL || !Ours(*handle, kind)) return Leave(refusal);
    (*handle)->magic = 0;
    free(*handle);
    *handle = NULL;
    atomic_fetch_sub(&s_out[kind], 1);
    return Leave(0);
}
/* Exactly its length, no terminator, so that over-reads show. */
static void HandOut(gss_buffer_t out, const void* p, size_t n) {
    out->value = memcpy(malloc(n + 1), p, n);
    out->length = n;
    atomic_fetch_add(&s_out[K_BUFFER], 1);
}

/* ---- controls ---- */
FAKE_EXPORT void fake_gss_reset(void) {
    for (int i = 0; i < E_COUNT; ++i) atomic_store(&s_calls[i], 0);
    for (int i = 0; i < K_COUNT; ++i) atomic_store(&s_out[i], 0);
    atomic_store(&s_maxInside, 0), atomic_store(&s_meet, 0), atomic_store(&s_meetMs, 0), atomic_store(&s_hook, NULL);
    atomic_store(&s_failEntry, -1), atomic_store(&s_scriptN, 0), atomic_store(&s_scriptNext, 0), atomic_store(&s_lastUsage, -1);
    s_lastImport[0] = 0, s_lastAsUser = -1;
}
/* Queues the answer of a gss_accept_sec_context; a NULL client name gives none. */
FAKE_EXPORT int fake_gss_script_accept(OM_uint32 major, const void* token, size_t n, const char* name) {
    const int i = atomic_load(&s_scriptN);
    if (i >= 4 || n > 64 || (name != NULL && strlen(name) >= 64)) return 0;
    s_script[i].major = major, s_script[i].tokenLength = n, s_script[i].hasName = name != NULL;
    memcpy(s_script[i].token, token, n);
    snprintf(s_script[i].name, 64, "%s", name != NULL ? name : "");
    atomic_store(&s_scriptN, i + 1);
    return 1;
}
/* From now on the entry point answers major; with leave, it hands out its object all the same. */
FAKE_EXPORT void fake_gss_fail(const char* entry, OM_uint32 major, int leave) {
    atomic_store(&s_failMajor, major), atomic_store(&s_failLeave, leave), atomic_store(&s_failEntry, EntryOf(entry));
}
/* Each call waits, up to ms, until n calls are inside at once. */
FAKE_EXPORT void fake_gss_set_rendezvous(int n, int ms) { atomic_store(&s_meetMs, ms), atomic_store(&s_meet, n); }
FAKE_EXPORT int fake_gss_max_concurrent(void) { return atomic_load(&s_maxInside); }
FAKE_EXPORT void fake_gss_set_hook(void (*hook)(const char*)) { atomic_store(&s_hook, hook); }
/* Calls of one entry point, or of all for NULL. */
FAKE_EXPORT long fake_gss_calls(const char* entry) {
    long total = 0;
    for (int i = 0; i < E_COUNT; ++i) total += (entry == NULL || i == EntryOf(entry)) ? atomic_load(&s_calls[i]) : 0;
    return total;
}
/* Names, credentials, contexts and buffers not given back; one given back twice counts too. */
FAKE_EXPORT long fake_gss_outstanding(void) {
    long total = 0;
    for (int i = 0; i < K_COUNT; ++i) total += labs(atomic_load(&s_out[i]));
    return total;
}
/* The last name imported, whether as a user name, and the usage of the last credential asked for. */
FAKE_EXPORT void fake_gss_last(char* text, size_t n, int* asUser, int* usage) {
    snprintf(text, n, "%s", s_lastImport);
    *asUser = s_lastAsUser, *usage = atomic_load(&s_lastUsage);
}

/* ---- the ten entry points ---- */
FAKE_EXPORT OM_uint32 gss_acquire_cred(OM_uint32* minor, gss_obj_t name, OM_uint32 time, void* mechs, int usage,
                                       gss_obj_t* cred, void* actual, OM_uint32* rec) {
    const OM_uint32 major = Enter(__func__);
    atomic_store(&s_lastUsage, usage);
    *minor = 0;
    if (!Ours(name, K_NAME)) return Leave(BAD_NAME);
    if (major == 0 || atomic_load(&s_failLeave)) *cred = New(K_CRED, "", 0);
    return Leave(major);
}
FAKE_EXPORT OM_uint32 gss_release_cred(OM_uint32* minor, gss_obj_t* cred) {
    return Release(__func__, K_CRED, minor, cred, NO_CRED);
}
/* The system never initiates; enough to be called. */
FAKE_EXPORT OM_uint32 gss_init_sec_context(OM_uint32* minor, gss_obj_t cred, gss_obj_t* ctx, gss_obj_t target,
                                           gss_OID mech, OM_uint32 flags, OM_uint32 time, void* bindings,
                                           gss_buffer_t in, gss_OID* actual, gss_buffer_t out, OM_uint32* retFlags,
                                           OM_uint32* rec) {
    Enter(__func__);
    *minor = 0, out->length = 0, out->value = NULL;
    return Leave(FAILURE);
}
FAKE_EXPORT OM_uint32 gss_accept_sec_context(OM_uint32* minor, gss_obj_t* ctx, gss_obj_t cred, gss_buffer_t in,
                                             void* bindings, gss_obj_t* src, gss_OID* mech, gss_buffer_t out,
                                             OM_uint32* flags, OM_uint32* rec, gss_obj_t* delegated) {
    Enter(__func__);
    const int i = atomic_fetch_add(&s_scriptNext, 1);
    const int scripted = i < atomic_load(&s_scriptN); /* unscripted calls fail */
    *minor = 0, out->length = 0, out->value = NULL;
    if (!Ours(cred, K_CRED)) return Leave(NO_CRED);
    if (*ctx != NULL && !Ours(*ctx, K_CONTEXT)) return Leave(NO_CONTEXT); /* the caller lost it between passes */
    if (*ctx == NULL) *ctx = New(K_CONTEXT, "", 0); /* it exists from the first call on, even a failing one */
    if (!scripted) return Leave(FAILURE);
    if (s_script[i].hasName && src != NULL) *src = New(K_NAME, s_script[i].name, strlen(s_script[i].name));
    if (s_script[i].tokenLength > 0) HandOut(out, s_script[i].token, s_script[i].tokenLength);
    return Leave(s_script[i].major);
}
FAKE_EXPORT OM_uint32 gss_delete_sec_context(OM_uint32* minor, gss_obj_t* ctx, gss_buffer_t out) {
    return Release(__func__, K_CONTEXT, minor, ctx, NO_CONTEXT);
}
FAKE_EXPORT OM_uint32 gss_import_name(OM_uint32* minor, gss_buffer_t in, gss_OID type, gss_obj_t* name) {
    static const unsigned char userName[10] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x12, 0x01, 0x02, 0x01, 0x01};
    const OM_uint32 major = Enter(__func__);
    snprintf(s_lastImport, sizeof s_lastImport, "%.*s", (int)in->length, (const char*)in->value);
    s_lastAsUser = type != NULL && type->length == 10 && memcmp(type->elements, userName, 10) == 0;
    *minor = 0;
    if (major == 0 || atomic_load(&s_failLeave)) *name = New(K_NAME, in->value, in->length);
    return Leave(major);
}
FAKE_EXPORT OM_uint32 gss_display_name(OM_uint32* minor, gss_obj_t name, gss_buffer_t out, gss_OID* type) {
    Enter(__func__);
    *minor = 0, out->length = 0, out->value = NULL;
    if (!Ours(name, K_NAME)) return Leave(BAD_NAME);
    HandOut(out, name->text, name->length);
    return Leave(0);
}
/* A GSS code's text comes in two pieces, a mechanism code's in one. */
FAKE_EXPORT OM_uint32 gss_display_status(OM_uint32* minor, OM_uint32 status, int type, gss_OID mech,
                                         OM_uint32* context, gss_buffer_t out) {
    const OM_uint32 major = Enter(__func__);
    char text[64];
    *minor = 0, out->length = 0, out->value = NULL;
    if (major != 0) return Leave(major);
    if (type == 1) {
        snprintf(text, sizeof text, "major 0x%08x part %u/2", (unsigned)status, (unsigned)*context + 1);
        *context = !*context;
    } else {
        snprintf(text, sizeof text, "minor %u", (unsigned)status);
        *context = 0;
    }
    HandOut(out, text, strlen(text));
    return Leave(0);
}
FAKE_EXPORT OM_uint32 gss_release_name(OM_uint32* minor, gss_obj_t* name) {
    return Release(__func__, K_NAME, minor, name, BAD_NAME);
}
#if !defined(FAKE_GSS_OMIT_RELEASE_BUFFER)
FAKE_EXPORT OM_uint32 gss_release_buffer(OM_uint32* minor, gss_buffer_t buffer) {
    Enter(__func__);
    *minor = 0;
    if (buffer->value != NULL) atomic_fetch_sub(&s_out[K_BUFFER], 1);
    free(buffer->value);
    buffer->value = NULL, buffer->length = 0;
    return Leave(0);
}
#endif
