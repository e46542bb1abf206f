/* What is done through a handle that was opened: writes, which change the file, and the close,
 * which records that it was changed or read. Nothing is asked here; the open was. */
#include "kavrin_module.h"

#include "lib/util/tevent_unix.h"
#include "processing_functions.h"

void kavrin_mark_modified(struct vfs_handle_struct* handle, struct files_struct* fsp) {
    struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);

    if (open != NULL) open->record.is_modified = 1;
}

/* Whether the close of an object is a fact to record. A handle that was opened for attributes only
 * read nothing, a creation is recorded already, and a deleted file has no name any more. */
static bool is_recorded(struct files_struct* fsp, const struct kavrin_open* open) {
    struct stat status;

    if (open == NULL || fsp->fsp_flags.is_directory) return false;
    if (open->record.is_modified == 0 && (!open->reads || open->created)) return false;
    return fstat(fsp_get_pathref_fd(fsp), &status) == 0 && status.st_nlink > 0;
}

static void record_close(struct vfs_handle_struct* handle, struct files_struct* fsp) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);
    struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);
    modify_file_evt_s_t* record;
    bool became_user;

    if (!is_recorded(fsp, open)) return;
    record = &open->record;
    became_user = kavrin_user_begin(connection);
    kavrin_hook_begin(connection);
    connection->library.pmodify = record;
    close_preprocess(connection->audit, fsp_get_pathref_fd(fsp), &connection->library, &record, 1,
                     connection->client);
    connection->library.pmodify = NULL;
    kavrin_hook_end(NULL);
    kavrin_user_end(became_user);
}

int kavrin_close(struct vfs_handle_struct* handle, struct files_struct* fsp) {
    struct kavrin_connection* connection = kavrin_connection_of(handle);

    if (connection->referred == fsp) connection->referred = NULL;
    record_close(handle, fsp);
    return SMB_VFS_NEXT_CLOSE(handle, fsp);
}

/* A client was lost whose handle is kept for its return. smbd notes the times of the file first and
 * gives the handle back only if they are still the same then, but the record of a change marks the
 * file. So a change is recorded here, and the close that follows has nothing to add. */
NTSTATUS kavrin_durable_disconnect(struct vfs_handle_struct* handle, struct files_struct* fsp,
                                   const DATA_BLOB old_cookie, TALLOC_CTX* mem_ctx,
                                   DATA_BLOB* new_cookie) {
    struct kavrin_open* open = VFS_FETCH_FSP_EXTENSION(handle, fsp);

    if (open != NULL && open->record.is_modified != 0) {
        record_close(handle, fsp);
        open->reads = false;
    }
    return SMB_VFS_NEXT_DURABLE_DISCONNECT(handle, fsp, old_cookie, mem_ctx, new_cookie);
}

ssize_t kavrin_pwrite(struct vfs_handle_struct* handle, struct files_struct* fsp, const void* data,
                      size_t n, off_t offset) {
    const ssize_t result = SMB_VFS_NEXT_PWRITE(handle, fsp, data, n, offset);

    if (result > 0) kavrin_mark_modified(handle, fsp);
    return result;
}

/* The write itself runs in a helper thread, which none of this touches (note 6). */
struct pwrite_state {
    struct vfs_handle_struct* handle;
    struct files_struct* fsp;
    ssize_t result;
    struct vfs_aio_state aio;
};

static void pwrite_done(struct tevent_req* below) {
    struct tevent_req* request = tevent_req_callback_data(below, struct tevent_req);
    struct pwrite_state* state = tevent_req_data(request, struct pwrite_state);

    state->result = SMB_VFS_PWRITE_RECV(below, &state->aio);
    TALLOC_FREE(below);
    if (state->result > 0) kavrin_mark_modified(state->handle, state->fsp);
    tevent_req_done(request);
}

struct tevent_req* kavrin_pwrite_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                      struct tevent_context* ev, struct files_struct* fsp,
                                      const void* data, size_t n, off_t offset) {
    struct pwrite_state* state = NULL;
    struct tevent_req* request = tevent_req_create(mem_ctx, &state, struct pwrite_state);
    struct tevent_req* below;

    if (request == NULL) return NULL;
    state->handle = handle;
    state->fsp = fsp;
    below = SMB_VFS_NEXT_PWRITE_SEND(state, ev, handle, fsp, data, n, offset);
    if (tevent_req_nomem(below, request)) return tevent_req_post(request, ev);
    tevent_req_set_callback(below, pwrite_done, request);
    return request;
}

ssize_t kavrin_pwrite_recv(struct tevent_req* req, struct vfs_aio_state* state) {
    struct pwrite_state* own = tevent_req_data(req, struct pwrite_state);
    ssize_t result = -1;

    if (!tevent_req_is_unix_error(req, &state->error)) {
        *state = own->aio;
        result = own->result;
    }
    tevent_req_received(req);
    return result;
}

ssize_t kavrin_recvfile(struct vfs_handle_struct* handle, int fromfd, files_struct* tofsp,
                        off_t offset, size_t count) {
    const ssize_t result = SMB_VFS_NEXT_RECVFILE(handle, fromfd, tofsp, offset, count);

    if (result > 0) kavrin_mark_modified(handle, tofsp);
    return result;
}

int kavrin_ftruncate(struct vfs_handle_struct* handle, struct files_struct* fsp, off_t offset) {
    const int result = SMB_VFS_NEXT_FTRUNCATE(handle, fsp, offset);

    if (result == 0) kavrin_mark_modified(handle, fsp);
    return result;
}

int kavrin_fallocate(struct vfs_handle_struct* handle, struct files_struct* fsp, uint32_t mode,
                     off_t offset, off_t len) {
    const int result = SMB_VFS_NEXT_FALLOCATE(handle, fsp, mode, offset, len);

    if (result == 0) kavrin_mark_modified(handle, fsp);
    return result;
}

/* A copy on the server counts as a change from its start. */
struct tevent_req* kavrin_offload_write_send(struct vfs_handle_struct* handle, TALLOC_CTX* mem_ctx,
                                             struct tevent_context* ev, uint32_t fsctl,
                                             DATA_BLOB* token, off_t transfer_offset,
                                             struct files_struct* dest_fsp, off_t dest_off,
                                             off_t to_copy) {
    kavrin_mark_modified(handle, dest_fsp);
    return SMB_VFS_NEXT_OFFLOAD_WRITE_SEND(handle, mem_ctx, ev, fsctl, token, transfer_offset,
                                           dest_fsp, dest_off, to_copy);
}
