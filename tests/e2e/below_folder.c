/* smbtorture works in the top level of a share and cannot be told otherwise; there a kavrin share
 * holds nothing but Shared and Private. Preloaded into smbtorture, this puts a folder before every
 * path that it sends: in create requests and in renames. The folder is in TORTURE_FOLDER. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Where a create request has its name; no other SMB2 request has one there. */
static const uint16_t name_in_create = 0x2C;

static void* next_symbol(const char* name) {
    void* symbol = dlsym(RTLD_NEXT, name);

    if (symbol == NULL) {
        fprintf(stderr, "below_folder: this smbtorture has no function %s\n", name);
        abort();
    }
    return symbol;
}

/* The path below the folder, to be freed; null when it stays as it is, a stream of the top level.
 * An absolute path, which a server refuses, stays one. */
static char* below_folder(const char* path) {
    const char* folder = getenv("TORTURE_FOLDER");
    char* result = NULL;

    if (folder == NULL || path == NULL || path[0] == ':') return NULL;
    if (path[0] == '\\' || path[0] == '/') {
        if (asprintf(&result, "%c%s%s", path[0], folder, path) < 0) abort();
    } else if (asprintf(&result, "%s%s%s", folder, path[0] == '\0' ? "" : "\\", path) < 0) {
        abort();
    }
    return result;
}

uint32_t smb2_push_o16s16_string(void* request, uint16_t place, const char* text);
uint32_t smb2_push_o16s16_string(void* request, uint16_t place, const char* text) {
    uint32_t (*push)(void*, uint16_t, const char*) = NULL;
    char* path = place == name_in_create ? below_folder(text) : NULL;
    uint32_t status;

    *(void**)&push = next_symbol("smb2_push_o16s16_string");
    status = push(request, place, path == NULL ? text : path);
    free(path);
    return status;
}

/* Without a session this is the target of an SMB2 rename. */
size_t smbcli_blob_append_string(void* session, void* memory, void* blob, const char* text,
                                 unsigned flags);
size_t smbcli_blob_append_string(void* session, void* memory, void* blob, const char* text,
                                 unsigned flags) {
    size_t (*append)(void*, void*, void*, const char*, unsigned) = NULL;
    char* path = session == NULL ? below_folder(text) : NULL;
    size_t size;

    *(void**)&append = next_symbol("smbcli_blob_append_string");
    size = append(session, memory, blob, path == NULL ? text : path, flags);
    free(path);
    return size;
}
