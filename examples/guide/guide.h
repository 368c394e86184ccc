/* What the guide's examples share: the host's link to its peer, and two helpers. */
#ifndef OSTREL_GUIDE_H
#define OSTREL_GUIDE_H

#include <stddef.h>
#include <stdio.h>

#include "ostrel/ostrel.h"

/* The host's own channel to the other end of a login (a socket, an HTTP exchange...). */
struct Transport {
    /* 0 when the bytes went out. */
    int (*send)(void* context, const void* data, size_t length);
    /* 0 with the peer's next token in *data (the host's memory, freed with free());
     * 1 when the peer has nothing more to send; -1 when the peer is gone. */
    int (*receive)(void* context, void** data, size_t* length);
    void* context;
};

void put_text(FILE* out, const ostrel_char* text);
void report_failure(const char* what, unsigned int status);

#endif
