/* The one table of callbacks a host hands to the module before it calls any
 * plug-in entry point.  Nothing else crosses the boundary between host and
 * module: every other host service is a host script function that the module
 * looks up by its prototype text and calls through a plain C function pointer.
 *
 * Conventions shared by host and module:
 *  - Images, tag groups, strings, data locks and other script objects are
 *    opaque reference tokens (KixObject*).  A null token is "no object".
 *  - Reference counting: a token passed *into* a function is borrowed; a token
 *    *returned* by a function (host function or script handler) carries one
 *    reference that the receiver owns and eventually releases.  A script
 *    function's `ImageRef *` slot holds a reference owned by the script
 *    variable; a handler that stores another image there releases the old one.
 *  - Scalar widths are the host script's on every platform: `long` is int32_t,
 *    `ulong`/`uint32` uint32_t, `short` int16_t, `Boolean`/`bool` C++ bool,
 *    `complex` a double complex passed by value, `char` a char.
 *  - Errors: a handler never lets a C++ exception cross the boundary.  It reports
 *    the failure through report_error on the calling thread and returns a zero
 *    result; the host turns the report into a script error.
 */
#ifndef KIX_HOST_ABI_H
#define KIX_HOST_ABI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KIX_HOST_ABI_VERSION 1u

typedef struct KixObject KixObject;

/* report_error kinds */
#define KIX_ERROR_CONTINUABLE 0 /* a standard exception: message is the script error's text */
#define KIX_ERROR_EXCEPTION 1   /* any other failure, or an explicit report with a code */

typedef struct KixHostCallbacks {
    uint32_t abi_version;  /* KIX_HOST_ABI_VERSION */
    uint32_t host_version; /* packed: major in the top byte, minor in the next (3.10.0 = 0x030A0000) */
    void *host;            /* passed back as the first argument of every callback */

    /* Host script function by exact prototype text, or NULL when the host has none. */
    void *(*find_function)(void *host, const char *prototype);
    /* Register a script function: full signature text and its C entry point.
     * Returns 0 on success; otherwise a non-zero status and nothing is registered. */
    int32_t (*add_function)(void *host, const char *signature, void *function);
    void (*retain)(void *host, KixObject *object);
    void (*release)(void *host, KixObject *object);
    /* The error manager.  NULL when the host has none. */
    void (*report_error)(void *host, int32_t kind, int32_t code, const char *message,
                         const char *context);
    /* The output window.  NULL when the host has none. */
    void (*write_output)(void *host, const char *text);
    /* Host strings (`string`, `dm_string`): make one from UTF-8 text (one reference
     * returned), and read one back (valid while the caller holds the token). */
    KixObject *(*string_new)(void *host, const char *utf8, size_t length);
    const char *(*string_text)(void *host, KixObject *string, size_t *length);
} KixHostCallbacks;

/* A script function that the module offers but does not register at start-up. */
typedef struct KixFunctionEntry {
    const char *signature; /* full text, e.g. "long KIXPadSize(long n)" */
    void *function;        /* C entry point with the signature's parameter types */
} KixFunctionEntry;

/* Exported by the module. */
typedef void (*KixSetHostCallbacksFn)(const KixHostCallbacks *callbacks);
/* list 0: the larger inactive registrar list; list 1: the one-entry list. */
typedef const KixFunctionEntry *(*KixLibraryFunctionsFn)(int32_t list, size_t *count);

#ifdef __cplusplus
}
#endif

#endif
