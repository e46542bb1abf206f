/* The library as a C program uses it, from the configuration table to a verdict: what kavrin.h says
 * comes first does, and nothing but exported calls is needed. Runs as root in the sandbox; prints
 * what went wrong and exits 1, or "program: done". */
#define _GNU_SOURCE
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kavrin.h"

#define REQUIRE(condition)                                                                 \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "program: line %d: %s does not hold\n", __LINE__, #condition); \
            exit(1);                                                                       \
        }                                                                                  \
    } while (0)

enum { ADMINS = 7001, POWERS = 7002, IMAGE_SIZE = 581 };

static const char size_text[] =
    "{\"MAPNAME\": \"perm_map_A\", \"VERSION\": \"2.4.1\", \"GENERATIONNUM\": 1187,"
    " \"TIMESTAMP\": 1700000000, \"TOTALFSELEMS\": 5, \"TOTALACES\": 6, \"TOTALNAMELEN\": 33}\n";

static const char data_text[] =
    "[{\"NUMCHILDREN\": 1}, {\"DIR\": \"/\", \"ACL\": [{\"NUMUSERS\": 0}, {\"NUMGROUPS\": 1},"
    " {\"USERS\": {}}, {\"GROUPS\": {\"1000\": 8}}], \"CHILDREN\": [{\"NUMCHILDREN\": 2},"
    " {\"DIR\": \"Shared\", \"ACL\": [{\"NUMUSERS\": 1}, {\"NUMGROUPS\": 1},"
    " {\"USERS\": {\"1001\": 7}}, {\"GROUPS\": {\"1000\": 1}}], \"CHILDREN\": [{\"NUMCHILDREN\": "
    "1},"
    " {\"DIR\": \"Docs\", \"ACL\": [{\"NUMUSERS\": 1}, {\"NUMGROUPS\": 0},"
    " {\"USERS\": {\"1002\": 3}}, {\"GROUPS\": {}}], \"CHILDREN\": [{\"NUMCHILDREN\": 1},"
    " {\"DIR\": \"report.txt\", \"ACL\": [{\"NUMUSERS\": 0}, {\"NUMGROUPS\": 0},"
    " {\"USERS\": {}}, {\"GROUPS\": {}}], \"CHILDREN\": [{\"NUMCHILDREN\": 0}]}]}]},"
    " {\"DIR\": \"Private\", \"ACL\": [{\"NUMUSERS\": 2}, {\"NUMGROUPS\": 0},"
    " {\"USERS\": {\"1001\": 7, \"1002\": 8}}, {\"GROUPS\": {}}],"
    " \"CHILDREN\": [{\"NUMCHILDREN\": 0}]}]}]\n";

static void write_text(const char* path, const char* text) {
    FILE* file = fopen(path, "w");
    REQUIRE(file != NULL);
    REQUIRE(fputs(text, file) >= 0);
    REQUIRE(fclose(file) == 0);
}

/* The builder's side: the pair becomes the current map. Gives the segment's id. */
static int publish(char* size_path, char* data_path) {
    REQUIRE(create_perm_map_semaphore() == 0);
    const int current = get_current_perm_table_index_for_fill();
    REQUIRE(current == 0);

    memsummary_t* summary = NULL;
    REQUIRE(get_permbe_shmsize(size_path, data_path, &summary) == SHM_MEMBE_OK);
    REQUIRE(summary->memsize == IMAGE_SIZE);
    int segment = -1;
    summary->membuf =
        create_perm_map_shm(get_next_perm_table_key(current), summary->memsize, &segment);
    REQUIRE(summary->membuf != NULL && segment >= 0);
    REQUIRE(init_permbe_shm(summary) == SHM_MEMBE_OK);
    REQUIRE(swap_maps(current) == 0);
    REQUIRE(map_initialized(1) == 0 && map_initialized(0) == 1);
    put_perm_map_addr(summary->membuf);

    free(summary->perm_map_name_size);
    free(summary->perm_map_name_data);
    free(summary);
    REQUIRE(access(data_path, F_OK) != 0 && access(size_path, F_OK) != 0);
    return segment;
}

/* The reader's side: a path in the current image. */
static void look_up(void) {
    void* map = get_perm_map_addr();
    REQUIRE(map != NULL);
    char path[] = "/shared/DOCS";
    path_array_t* parts = NULL;
    get_path_elem_smb4(path, sizeof path, &parts);
    REQUIRE(parts != NULL && parts->num_elems == 3);
    uint32_t element = 0;
    REQUIRE(find_fselem_fromname(map, parts, &element) == SHM_MEMBE_OK);
    REQUIRE(element != 0);
    cleanup_path_array_smb4(&parts);
    REQUIRE(parts == NULL);

    kavrin_acl_t* acl = NULL;
    REQUIRE(get_kavrin_acl(map, path, &acl) == SHM_MEMBE_OK);
    REQUIRE(acl->num_aces == 1 && acl->ace_list_head.first_elem != NULL);
    const kavrin_ace_t* ace = (const kavrin_ace_t*)acl->ace_list_head.first_elem;
    REQUIRE(ace->trustee_type == ACE_TYPE_USER && ace->trustee.uid == 1002);
    REQUIRE(ace->perm_mask == KAVRIN_PERM_MASK_RDWR && ace->ace_type == 0);
    free_ACL(acl);
    free(acl);
    put_perm_map_addr(map);
}

static e_vfs_enforce_perms_t verdict_for(uid_t uid, const char* share, const char* path,
                                         e_fsop_type_t op) {
    gid_t groups[] = {POWERS};
    process_trustees_t caller = {.euid = uid, .egid = 100, .num_sup_gids = 1, .gids = groups};
    REQUIRE(setegid(100) == 0 && seteuid(uid) == 0);
    int is_nav = 7;
    const e_vfs_enforce_perms_t verdict = vfs_enforce_perms(share, path, op, &caller, 0, &is_nav);
    REQUIRE(is_nav == 0 || is_nav == 1);
    REQUIRE(geteuid() == uid && caller.poweruser == 1 && caller.is_global_map_in_use == 0);
    REQUIRE(seteuid(0) == 0 && setegid(0) == 0);
    return verdict;
}

static void ask(char* share) {
    char folder[128];
    snprintf(folder, sizeof folder, "%s/Shared", share);
    REQUIRE(mkdir(folder, 0755) == 0);
    snprintf(folder, sizeof folder, "%s/Shared/Docs", share);
    REQUIRE(mkdir(folder, 0755) == 0);
    vfs_set_admins_powerusers(ADMINS, POWERS);
    REQUIRE(verdict_for(1002, share, "Shared/Docs/new.txt", FSOP_CREATE) == KVPERMS_HAS_PERMS);
    REQUIRE(verdict_for(1002, share, "Shared/Docs/new.txt", FSOP_UNLINK) == KVPERMS_HAS_PERMS);
    REQUIRE(verdict_for(1002, share, "Shared/Docs", FSOP_RMDIR) == KVPERMS_NO_PERM);
    REQUIRE(verdict_for(1001, share, "Shared/Docs/new.txt", FSOP_CREATE) == KVPERMS_NO_PERM);
}

static void texts(void) {
    char* path = normalize_path("a//b/./c/..");
    REQUIRE(path != NULL && strcmp(path, "a/b") == 0);
    char* parent = parent_dir_from_path(path);
    REQUIRE(parent != NULL && strcmp(parent, "a") == 0);
    free(parent);
    free(path);
    REQUIRE(is_special_folder_file(".DS_Store") == 1);
    REQUIRE(kavrin_strncasecmp("Docs", "dOCS", 4) == 0);
    REQUIRE(permbe_fname_hash("Docs", 4) == permbe_fname_hash("DOCS", 4));
}

int main(void) {
    if (getenv("KAVRIN_SANDBOX") == NULL) {
        fprintf(stderr, "program: run me through scripts/sandbox\n");
        return 1;
    }
    REQUIRE(global_params == NULL);
    REQUIRE(create_config_buffer() == 0);
    REQUIRE(global_params != NULL);
    REQUIRE(global_params[PARAM_DEBUG_LEVEL].type == PARAM_VAL_TYPE_INT);
    global_params[PARAM_DEBUG_LEVEL].value.intval = -1;

    char share[] = "/tmp/kavrin-program-XXXXXX";
    REQUIRE(mkdtemp(share) != NULL && chmod(share, 0755) == 0);
    char size_path[64];
    char data_path[64];
    snprintf(size_path, sizeof size_path, "%s/size.json", share);
    snprintf(data_path, sizeof data_path, "%s/data.json", share);
    write_text(size_path, size_text);
    write_text(data_path, data_text);

    texts();
    const int segment = publish(size_path, data_path);
    look_up();
    ask(share);
    destroy_perm_map();
    REQUIRE(shmctl(segment, IPC_RMID, NULL) == 0);
    REQUIRE(remove_config_buffer() == 0);
    puts("program: done");
    return 0;
}
