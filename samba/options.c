/* The share's options, read once when a client connects. smbd takes any option of a module as it
 * comes, so a slip of the pen would go unnoticed: here it refuses the connection. */
#include "kavrin_module.h"

#include "lib/param/loadparm.h"

static const char* const known_options[] = {"audit", "allow computer account"};

/* The name of an option of ours, or null. smbd keeps keys as "module:name". */
static const char* name_of(const char* key) {
    static const char prefix[] = "kavrin:";
    const char* name = key + sizeof prefix - 1;

    if (!strnequal(key, prefix, sizeof prefix - 1)) return NULL;
    return name + strspn(name, " \t");
}

static bool is_known(const char* name) {
    for (size_t i = 0; i < ARRAY_SIZE(known_options); i++)
        if (strequal(name, known_options[i])) return true;
    return false;
}

static bool is_boolean(const char* text) {
    bool value;

    return set_boolean(text, &value);
}

static bool is_sound(const char* where, const char* key, const char* value) {
    const char* name = name_of(key);

    if (name == NULL) return true;
    if (!is_known(name)) {
        DBG_ERR("%s: unknown option '%s'; nobody can connect until it is corrected\n", where, key);
        return false;
    }
    if (!is_boolean(value)) {
        DBG_ERR(
            "%s: option '%s' is '%s', which is neither yes nor no; nobody can connect until it is "
            "corrected\n",
            where, key, value);
        return false;
    }
    return true;
}

/* smbd shows its own options of [global] to nobody but a file. */
static bool are_global_options_sound(TALLOC_CTX* memory) {
    char* text = NULL;
    size_t size = 0;
    FILE* file = open_memstream(&text, &size);
    char* rest;
    bool sound = true;

    if (file == NULL) return false;
    lp_dump(file, false, 0);
    if (fclose(file) != 0) return false;
    for (char* line = strtok_r(text, "\n", &rest); sound && line != NULL;
         line = strtok_r(NULL, "\n", &rest)) {
        char* key = talloc_strdup(memory, line + strspn(line, " \t"));
        char* value = key == NULL ? NULL : strstr(key, " = ");

        if (value != NULL) {
            *value = '\0';
            sound = is_sound("[global]", key, value + 3);
        }
        TALLOC_FREE(key);
    }
    free(text);
    return sound;
}

/* smbd serves such users as root, whom no verdict binds. */
static bool has_admin_users(int service) {
    const char** users = lp_admin_users(service);

    return users != NULL && users[0] != NULL;
}

bool kavrin_read_options(struct vfs_handle_struct* handle, struct kavrin_connection* connection) {
    const int service = SNUM(handle->conn);
    const struct loadparm_service* share = lp_servicebynum(service);
    const char* where = talloc_asprintf(connection, "share '%s'", lp_const_servicename(service));

    if (where == NULL || !are_global_options_sound(connection)) return false;
    for (const struct parmlist_entry* option = share == NULL ? NULL : share->param_opt;
         option != NULL; option = option->next)
        if (!is_sound(where, option->key, option->value)) return false;
    if (has_admin_users(service)) {
        DBG_ERR(
            "%s: 'admin users' would be beyond all rules; nobody can connect until it is empty. "
            "Put administrators into the group kavrin-admins\n",
            where);
        return false;
    }
    if (handle->conn->force_user) {
        DBG_ERR(
            "%s: 'force user' would give everybody that user's permissions; nobody can connect "
            "until it is empty\n",
            where);
        return false;
    }
    connection->audit = lp_parm_bool(service, "kavrin", "audit", false) ? 1 : 0;
    connection->library.config.allow_computeracct =
        lp_parm_bool(service, "kavrin", "allow computer account", false) ? 1 : 0;
    return true;
}
