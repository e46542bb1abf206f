/* Who the process is. A hook changes uids by raw system calls and gives them back, while smbd keeps
 * an idea of its own and checks with it. So a hook is asked, and its credentials are given back at
 * once, and only then the operation runs: as root, for the one call of the next module that reaches
 * the disk. That is root for the file system alone, two system calls instead of the some thirty of
 * become_root(), which a listing would pay for each entry several times.
 *
 * Where a verdict leaves the effective gid 0, because the kernel refused its way back, that one
 * difference is put right here; any other ends the connection. */
#include "kavrin_module.h"

#include <sys/syscall.h>

#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "perm_map.h"

struct identity {
    uid_t real_uid, effective_uid, saved_uid;
    gid_t real_gid, effective_gid, saved_gid;
    int group_count;
    gid_t* groups;
};

/* As many groups as the kernel knows; touched only as far as they are used. */
static gid_t groups_before[NGROUPS_MAX];
static gid_t groups_after[NGROUPS_MAX];
static struct identity before;
static struct kavrin_connection* asking; /* null outside of a hook */
static uid_t uid_on_disk;                /* whose place root takes there; 0 if nobody's */
static bool makes_on_disk;
static bool is_user_by_force; /* between kavrin_user_begin() and its end */

static volatile sig_atomic_t signals_received;

static void on_signal(int number) {
    (void)number;
    signals_received++;
}

/* Note 7: the signal only counts itself. */
void kavrin_note_signals(void) {
    CatchSignal(SIGUSR1, on_signal);
}

static bool read_identity(struct identity* identity, gid_t* groups) {
    identity->groups = groups;
    identity->group_count = getgroups(NGROUPS_MAX, groups);
    return identity->group_count >= 0 &&
           getresuid(&identity->real_uid, &identity->effective_uid, &identity->saved_uid) == 0 &&
           getresgid(&identity->real_gid, &identity->effective_gid, &identity->saved_gid) == 0;
}

static bool is_same_but_for_egid(const struct identity* a, const struct identity* b) {
    return a->real_uid == b->real_uid && a->effective_uid == b->effective_uid &&
           a->saved_uid == b->saved_uid && a->real_gid == b->real_gid &&
           a->saved_gid == b->saved_gid && a->group_count == b->group_count &&
           memcmp(a->groups, b->groups, (size_t)a->group_count * sizeof(gid_t)) == 0;
}

/* Raw calls change this thread only, never smbd's helper threads (note 6). */
static void change_effective_uid(uid_t uid) {
    if (syscall(SYS_setresuid, -1, uid, -1) != 0)
        exit_server_cleanly("kavrin: the kernel refused a change of the effective uid");
}

static void change_effective_gid(gid_t gid) {
    if (syscall(SYS_setresgid, -1, gid, -1) != 0)
        exit_server_cleanly("kavrin: the kernel refused a change of the effective gid");
}

static void restore_effective_gid(gid_t gid) {
    const uid_t uid = geteuid();

    change_effective_uid(0);
    change_effective_gid(gid);
    change_effective_uid(uid);
}

/* smbd closes what is open on its way out, and that asks and records once more. */
static void leave(const char* reason) {
    if (asking != NULL) asking->library.pmodify = NULL;
    asking = NULL;
    exit_server_cleanly(reason);
}

static void end_connection(const struct identity* after) {
    DBG_ERR(
        "identity not restored after a hook: uids %u,%u,%u are %u,%u,%u; gids %u,%u,%u are "
        "%u,%u,%u; groups %d are %d. The connection ends.\n",
        before.real_uid, before.effective_uid, before.saved_uid, after->real_uid,
        after->effective_uid, after->saved_uid, before.real_gid, before.effective_gid,
        before.saved_gid, after->real_gid, after->effective_gid, after->saved_gid,
        before.group_count, after->group_count);
    leave("kavrin: identity not restored after a hook");
}

/* A group map that became unsafe serves nobody any more (note 11). */
static void check_group_map(void) {
    if (!kavrin_is_group_map_sound()) leave("kavrin: the group map is not sound");
}

/* A debug build compares what smbd thinks the process is with what it is. The groups only by their
 * number: smbd's list of them may be one that it freed, and nothing here changes them. */
static void check_identity(void) {
#ifdef KAVRIN_CHECK_IDENTITY
    const struct security_unix_token* token = get_current_utok(NULL);
    struct identity now;

    if (is_user_by_force) return;
    if (!read_identity(&now, groups_after) || now.effective_uid != token->uid ||
        syscall(SYS_setfsuid, -1) != (long)token->uid || now.effective_gid != token->gid ||
        now.group_count != (int)token->ngroups) {
        DBG_ERR("the process is %u:%u in %d groups, and smbd thinks it is %u:%u in %u\n",
                now.effective_uid, now.effective_gid, now.group_count, (unsigned)token->uid,
                (unsigned)token->gid, token->ngroups);
        smb_panic("kavrin: identity check");
    }
#endif
}

/* A verdict takes root's group as well, and can go back only to a group that is saved. What is
 * saved is smbd's gid 0, of which it makes no use, until the user's own is put there. */
static void save_own_group(void) {
    if (before.effective_uid == 0 || before.saved_gid == before.effective_gid) return;
    if (syscall(SYS_setresgid, -1, -1, before.effective_gid) == 0)
        before.saved_gid = before.effective_gid;
}

/* Verdicts come in bursts, and most of one's time is the attaching of the map. So it stays
 * attached, but not in a process that has gone idle: it could be a map that was replaced. */
static struct tevent_timer* until_released;

static void release_map(struct tevent_context* events, struct tevent_timer* timer,
                        struct timeval now, void* nothing) {
    (void)events, (void)now, (void)nothing;
    TALLOC_FREE(timer);
    until_released = NULL;
    keep_perm_map(0);
}

static void keep_map(struct tevent_context* events) {
    if (until_released != NULL) return;
    until_released = tevent_add_timer(events, events, timeval_current_ofs(1, 0), release_map, NULL);
    if (until_released != NULL) keep_perm_map(1);
}

/* The library takes the process's real group for the user's own, and smbd's is root's (note 14). */
static void put_own_group(struct kavrin_connection* connection) {
    connection->library.groupmap.egid = connection->group;
}

/* Whether smbd acts for somebody else than the connection's user, as when a file goes away that
 * another one wanted removed. The library's record is about the connection's user (note 15). */
bool kavrin_is_for_another(const struct kavrin_connection* connection) {
    const uid_t uid = geteuid();

    return uid != 0 && uid != connection->uid;
}

/* Within a hook: what stat does first. */
void kavrin_refresh(struct kavrin_connection* connection) {
    refresh_credentials(&connection->library);
    put_own_group(connection);
}

/* Before a hook: notes who the process is, and answers signals, outside of any verdict. */
void kavrin_hook_begin(struct kavrin_connection* connection) {
    const int error = errno;

    SMB_ASSERT(asking == NULL && uid_on_disk == 0);
    keep_map(connection->events);
    if (!read_identity(&before, groups_before))
        exit_server_cleanly("kavrin: cannot read the process's identity");
    save_own_group();
    asking = connection;
    if (connection->signals != signals_received) {
        connection->signals = signals_received;
        check_group_map();
        flush_perms_handler(SIGUSR1, &connection->library);
    }
    put_own_group(connection);
    errno = error;
}

/* After it: gives its credentials back (note 5). */
void kavrin_hook_end(kv_perm_ctx_t** context) {
    const int error = errno;
    struct identity after;

    if (context != NULL && *context != NULL) {
        kavrin_vfs_unbecome_root(*context);
        *context = NULL;
    }
    if (!read_identity(&after, groups_after) || !is_same_but_for_egid(&before, &after))
        end_connection(&after);
    if (after.effective_gid != before.effective_gid) restore_effective_gid(before.effective_gid);
    if (asking->library.refresh_creds.groupmap_refresh != asking->group_map_seen) {
        asking->group_map_seen = asking->library.refresh_creds.groupmap_refresh;
        check_group_map();
    }
    check_identity();
    asking = NULL;
    errno = error;
}

/* Around one call of the next module, which reaches the disk and no further: for the file system
 * the process is root, for everything else it stays the user's. What is made belongs to root's
 * group as well. False where there is nothing to end. */
bool kavrin_root_begin(bool makes) {
    if (kavrin_is_own_work()) return false;
    uid_on_disk = geteuid();
    makes_on_disk = makes;
    (void)syscall(SYS_setfsuid, 0); /* it tells of no failure; the disk will */
    if (makes) (void)syscall(SYS_setfsgid, 0);
    return true;
}

void kavrin_root_end(bool began) {
    const int error = errno;
    const uid_t uid = uid_on_disk;
    bool is_back;

    if (!began) return;
    uid_on_disk = 0;
    (void)syscall(SYS_setfsuid, uid);
    is_back = syscall(SYS_setfsuid, -1) == (long)uid;
    if (makes_on_disk) {
        (void)syscall(SYS_setfsgid, getegid());
        is_back = is_back && syscall(SYS_setfsgid, -1) == (long)getegid();
    }
    if (!is_back) exit_server_cleanly("kavrin: the kernel refused the way back from root");
    check_identity();
    errno = error;
}

/* What is not a user's wish: smbd works as root, or calls back while the disk is reached for one.
 */
bool kavrin_is_own_work(void) {
    return uid_on_disk != 0 || geteuid() == 0;
}

/* For hooks that mean the user where smbd works as root: at connect, and when it closes what a dead
 * connection left open. */
bool kavrin_user_begin(const struct kavrin_connection* connection) {
    const int error = errno;

    if (geteuid() != 0) return false;
    change_effective_uid(connection->uid);
    is_user_by_force = true;
    errno = error;
    return true;
}

void kavrin_user_end(bool became_user) {
    const int error = errno;

    if (became_user) {
        change_effective_uid(0);
        is_user_by_force = false;
    }
    check_identity();
    errno = error;
}
