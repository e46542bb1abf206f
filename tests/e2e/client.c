/* An SMB client that tests drive: one connection for many operations, each named by a line on
 * standard input and answered by a line on standard output, so that a table of hundreds of rows
 * takes a second. It speaks through libsmbclient, which this project did not write.
 *
 *   e2e_client USER PASSWORD SHARE        such as //127.0.0.1/share
 *
 * A line is a word and its arguments with tabs between them; paths are those within the share. The
 * answer is "ok", with what was asked for after a blank, or the name of an error, such as EACCES.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <libsmbclient.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>

static const char *account, *secret, *share;
static SMBCCTX* context;

static void die(const char* reason) {
    fprintf(stderr, "e2e_client: %s: %s\n", reason, strerror(errno));
    exit(1);
}

static void* allocate(size_t size) {
    void* memory = malloc(size);

    if (memory == NULL) die("memory");
    return memory;
}

static void log_in(SMBCCTX* unused, const char* server, const char* name, char* group,
                   int group_size, char* user, int user_size, char* password, int password_size) {
    (void)unused, (void)server, (void)name;
    snprintf(group, (size_t)group_size, "TEST");
    snprintf(user, (size_t)user_size, "%s", account);
    snprintf(password, (size_t)password_size, "%s", secret);
}

static void connect_anew(void) {
    if (context != NULL) smbc_free_context(context, 1);
    context = smbc_new_context();
    if (context == NULL) die("smbc_new_context");
    smbc_setFunctionAuthDataWithContext(context, log_in);
    smbc_setTimeout(context, 60000);
    if (smbc_init_context(context) == NULL) die("smbc_init_context");
    smbc_setOptionNoAutoAnonymousLogin(context, 1);
}

/* The address of a path. The caller frees it. */
static char* address_of(const char* path) {
    const size_t size = 3 * strlen(path) + 1; /* every byte may become %XX */
    char* encoded = allocate(size);
    char* address;

    smbc_urlencode(encoded, (char*)path, (int)size);
    if (asprintf(&address, "smb:%s/%s", share, encoded) < 0) die("memory");
    free(encoded);
    return address;
}

static void answer(bool done) {
    puts(done ? "ok" : strerrorname_np(errno));
}

static int by_name(const void* left, const void* right) {
    return strcmp(*(char* const*)left, *(char* const*)right);
}

/* The names in a folder, sorted, with "|" after each. */
static void list(const char* address) {
    SMBCFILE* folder = smbc_getFunctionOpendir(context)(context, address);
    const struct smbc_dirent* entry;
    char** names = NULL;
    size_t count = 0, room = 0;

    if (folder == NULL) {
        answer(false);
        return;
    }
    errno = 0;
    while ((entry = smbc_getFunctionReaddir(context)(context, folder)) != NULL) {
        if (strcmp(entry->name, ".") == 0 || strcmp(entry->name, "..") == 0) continue;
        if (count == room) {
            room = room * 2 + 64;
            names = realloc(names, room * sizeof *names);
            if (names == NULL) die("memory");
        }
        names[count++] = strdup(entry->name);
    }
    smbc_getFunctionClosedir(context)(context, folder);
    if (count > 0) qsort(names, count, sizeof *names, by_name);
    fputs("ok ", stdout);
    for (size_t i = 0; i < count; i++) {
        printf("%s|", names[i]);
        free(names[i]);
    }
    putchar('\n');
    free(names);
}

static void look(const char* address) {
    struct stat status;

    if (smbc_getFunctionStat(context)(context, address, &status) != 0)
        answer(false);
    else if (S_ISDIR(status.st_mode))
        puts("ok folder");
    else
        printf("ok file %lld\n", (long long)status.st_size);
}

/* The first line of a file. */
static void read_file(const char* address) {
    SMBCFILE* file = smbc_getFunctionOpen(context)(context, address, O_RDONLY, 0);
    char text[256] = "";
    ssize_t got;

    if (file == NULL) {
        answer(false);
        return;
    }
    got = smbc_getFunctionRead(context)(context, file, text, sizeof text - 1);
    if (got < 0)
        answer(false);
    else
        printf("ok %.*s\n", (int)strcspn(text, "\n"), text);
    smbc_getFunctionClose(context)(context, file);
}

/* Opens a file with flags, writes `text` if there is one, and closes it. */
static void open_file(const char* address, int flags, const char* text) {
    SMBCFILE* file = smbc_getFunctionOpen(context)(context, address, flags, 0666);
    const ssize_t length = text == NULL ? 0 : (ssize_t)strlen(text);
    bool done;

    if (file == NULL) {
        answer(false);
        return;
    }
    done = length == 0 ||
           smbc_getFunctionWrite(context)(context, file, text, (size_t)length) == length;
    done = smbc_getFunctionClose(context)(context, file) == 0 && done;
    answer(done);
}

/* After a refusal libsmbclient tries it by opening a file, which says nothing of a folder, and
 * keeps to that for as long as it is connected. */
static void set_time(const char* address, const char* seconds) {
    struct timeval times[2] = {{.tv_sec = atol(seconds)}, {.tv_sec = atol(seconds)}};

    if (smbc_getFunctionUtimes(context)(context, address, times) == 0) {
        answer(true);
        return;
    }
    if (errno == EISDIR) errno = EACCES;
    answer(false);
    connect_anew();
}

static void tell_space(const char* address) {
    struct statvfs space;

    if (smbc_getFunctionStatVFS(context)(context, (char*)address, &space) != 0)
        answer(false);
    else
        puts(space.f_blocks > 0 ? "ok some" : "ok none");
}

/* How a file is opened: the words stand for the create dispositions of the protocol. */
static const struct {
    const char* word;
    int flags;
} opens[] = {
    {"open", O_WRONLY},
    {"open_both", O_RDWR},
    {"open_if", O_WRONLY | O_CREAT},
    {"open_if_read", O_RDONLY | O_CREAT},
    {"create", O_WRONLY | O_CREAT | O_EXCL},
    {"overwrite", O_WRONLY | O_TRUNC},
    {"overwrite_if", O_WRONLY | O_CREAT | O_TRUNC},
};

static bool open_by_word(const char* word, const char* address, const char* text) {
    for (size_t i = 0; i < sizeof opens / sizeof *opens; i++) {
        if (strcmp(word, opens[i].word) != 0) continue;
        open_file(address, opens[i].flags, text);
        return true;
    }
    return false;
}

static void run(const char* word, const char* path, const char* rest) {
    char* address = address_of(path);

    if (strcmp(word, "list") == 0) {
        list(address);
    } else if (strcmp(word, "stat") == 0) {
        look(address);
    } else if (strcmp(word, "read") == 0) {
        read_file(address);
    } else if (strcmp(word, "mkdir") == 0) {
        answer(smbc_getFunctionMkdir(context)(context, address, 0777) == 0);
    } else if (strcmp(word, "rmdir") == 0) {
        answer(smbc_getFunctionRmdir(context)(context, address) == 0);
    } else if (strcmp(word, "unlink") == 0) {
        answer(smbc_getFunctionUnlink(context)(context, address) == 0);
    } else if (strcmp(word, "rename") == 0) {
        char* target = address_of(rest == NULL ? "" : rest);

        answer(smbc_getFunctionRename(context)(context, address, context, target) == 0);
        free(target);
    } else if (strcmp(word, "times") == 0) {
        set_time(address, rest == NULL ? "0" : rest);
    } else if (strcmp(word, "attributes") == 0) {
        const mode_t mode = (mode_t)strtoul(rest == NULL ? "0" : rest, NULL, 8);

        answer(smbc_getFunctionChmod(context)(context, address, mode) == 0);
    } else if (strcmp(word, "space") == 0) {
        tell_space(address);
    } else if (!open_by_word(word, address, rest)) {
        fprintf(stderr, "e2e_client: '%s' is no operation\n", word);
        puts("unknown");
    }
    free(address);
}

int main(int argc, char** argv) {
    char* line = NULL;
    size_t room = 0;

    if (argc != 4) {
        fputs("usage: e2e_client USER PASSWORD SHARE\n", stderr);
        return 64;
    }
    account = argv[1];
    secret = argv[2];
    share = argv[3];
    connect_anew();
    while (getline(&line, &room, stdin) > 0) {
        char* rest = line;
        const char *word, *path;

        line[strcspn(line, "\n")] = '\0';
        word = strsep(&rest, "\t");
        path = strsep(&rest, "\t");
        run(word, path == NULL ? "" : path, rest);
        fflush(stdout);
    }
    free(line);
    smbc_free_context(context, 1);
    return 0;
}
