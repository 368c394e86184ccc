/* Loading the plug-in at run time, as a server platform does, instead of linking it. */
#define _POSIX_C_SOURCE 200809L
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "ostrel/ostrel.h"

/* guide: load */
typedef unsigned int (*SSOInitPackageFn)(void);
typedef unsigned int (*SSOTermPackageFn)(void);
typedef unsigned int (*SSOAcceptLoginFn)(const ostrel_char*, const ostrel_char*, const void*, size_t,
                                         void**, size_t*, ParasSeq**, ostrel_char**);

struct Plugin {
    void* library;
    SSOInitPackageFn init_package;
    SSOTermPackageFn term_package;
    SSOAcceptLoginFn accept_login;
    /* ... one for each function the host calls ... */
};

/* A data pointer from dlsym becomes a function pointer by copying its bytes. */
static int resolve(void* library, const char* name, void* function_pointer)
{
    void* symbol = dlsym(library, name);
    if (symbol == NULL) {
        fprintf(stderr, "the plug-in does not export %s\n", name);
        return -1;
    }
    memcpy(function_pointer, &symbol, sizeof symbol);
    return 0;
}

/* 0 when the library is loaded, has what the host needs, and is initialised. */
int plugin_load(struct Plugin* plugin, const char* path)
{
    /* RTLD_LOCAL: the plug-in's symbols stay out of the host's namespace. */
    plugin->library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (plugin->library == NULL) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return -1;
    }
    if (resolve(plugin->library, "SSOInitPackage", &plugin->init_package) != 0 ||
        resolve(plugin->library, "SSOTermPackage", &plugin->term_package) != 0 ||
        resolve(plugin->library, "SSOAcceptLogin", &plugin->accept_login) != 0 ||
        plugin->init_package() != SSO_STATUS_OK) {
        dlclose(plugin->library);
        return -1;
    }
    return 0;
}

/* Each successful SSOInitPackage needs its SSOTermPackage before the library goes. */
void plugin_unload(struct Plugin* plugin)
{
    plugin->term_package();
    dlclose(plugin->library);
}
/* guide: end */
