/* Has the server copy a file, as file managers do, through libsmbclient:
 *
 *   server_copy USER PASSWORD FROM TO      such as smb://127.0.0.1/share/Shared/a
 *
 * Prints "ok" or the name of an error. smbclient's own command for it asks for the right to change
 * the target's rights, which a kavrin share grants to nobody. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <libsmbclient.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static char* const* arguments;

static void authenticate(const char* server, const char* share, char* workgroup, int workgroup_size,
                         char* user, int user_size, char* password, int password_size) {
    (void)server, (void)share;
    snprintf(workgroup, (size_t)workgroup_size, "TEST");
    snprintf(user, (size_t)user_size, "%s", arguments[1]);
    snprintf(password, (size_t)password_size, "%s", arguments[2]);
}

static int is_under_way(off_t written, void* data) {
    (void)written, (void)data;
    return 1;
}

static const char* copy(SMBCCTX* context, const char* from, const char* to) {
    SMBCFILE* source = smbc_getFunctionOpen(context)(context, from, O_RDONLY, 0);
    SMBCFILE* target = NULL;
    struct stat status;
    const char* result = "ok";

    if (source == NULL) return strerrorname_np(errno);
    if (smbc_getFunctionFstat(context)(context, source, &status) != 0)
        result = strerrorname_np(errno);
    else if ((target = smbc_getFunctionOpen(context)(context, to, O_RDWR | O_CREAT | O_TRUNC, 0)) ==
             NULL)
        result = strerrorname_np(errno);
    else if (smbc_getFunctionSplice(context)(context, source, target, status.st_size, is_under_way,
                                             NULL) != status.st_size)
        result = strerrorname_np(errno);
    if (target != NULL && smbc_getFunctionClose(context)(context, target) != 0)
        result = strerrorname_np(errno);
    smbc_getFunctionClose(context)(context, source);
    return result;
}

int main(int count, char** values) {
    SMBCCTX* context = smbc_new_context();

    if (count != 5 || context == NULL) {
        fprintf(stderr, "usage: server_copy USER PASSWORD FROM TO\n");
        return 64;
    }
    arguments = values;
    smbc_setFunctionAuthData(context, authenticate);
    if (smbc_init_context(context) == NULL) {
        fprintf(stderr, "server_copy: libsmbclient: %s\n", strerror(errno));
        return 1;
    }
    puts(copy(context, values[3], values[4]));
    smbc_free_context(context, 1);
    return 0;
}
