/* Error records, message texts and the plug-in's 16-bit text. */
#include "guide.h"

/* guide: text */
/* Every string of the plug-in is UTF-16, on every platform; this writes it as UTF-8. */
void put_text(FILE* out, const ostrel_char* text)
{
    for (; text != NULL && *text != 0; ++text) {
        unsigned long c = *text;
        if (c >= 0xD800 && c < 0xDC00 && text[1] >= 0xDC00 && text[1] < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (unsigned long)(*++text - 0xDC00);
        } else if (c >= 0xD800 && c < 0xE000) {
            c = 0xFFFD; /* half of a pair */
        }
        if (c < 0x80) {
            fputc((int)c, out);
        } else if (c < 0x800) {
            fprintf(out, "%c%c", (int)(0xC0 | c >> 6), (int)(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            fprintf(out, "%c%c%c", (int)(0xE0 | c >> 12), (int)(0x80 | (c >> 6 & 0x3F)), (int)(0x80 | (c & 0x3F)));
        } else {
            fprintf(out, "%c%c%c%c", (int)(0xF0 | c >> 18), (int)(0x80 | (c >> 12 & 0x3F)),
                    (int)(0x80 | (c >> 6 & 0x3F)), (int)(0x80 | (c & 0x3F)));
        }
    }
}
/* guide: end */

/* guide: errors */
/* After a status other than 0, 1 or 2: the calling thread's record, in words. */
void report_failure(const char* what, unsigned int status)
{
    Plugin_Exception_Struct* error = NULL;
    ostrel_char* text = NULL;
    const SubstString* insert;
    int n = 1;

    /* Same thread, right away: the next failure on this thread replaces the record. */
    if (SSOGetError(status, &error) != SSO_STATUS_OK) {
        fprintf(stderr, "%s: status %u (no error record)\n", what, status);
        return;
    }
    fprintf(stderr, "%s: status %u, message %u: ", what, error->errCode, error->messageId);
    if (SSOGetMessageContent(error->messageId, &text) == SSO_STATUS_OK) {
        put_text(stderr, text); /* may hold %1, %2, %3: the inserts below */
        SSOFreeString(text);
    } else if (error->message != NULL) {
        put_text(stderr, error->message); /* the out-of-memory record brings its own */
    }
    for (insert = error->pSubstStrings; insert != NULL; insert = insert->next, ++n) {
        fprintf(stderr, " [%%%d = ", n);
        put_text(stderr, insert->data); /* NULL stands for an empty insert */
        fputs("]", stderr);
    }
    fputs("\n", stderr);
    SSOFreeError(error);
}
/* guide: end */
