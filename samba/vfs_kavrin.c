// The Samba VFS module: it hands each operation of a share to the library and lets the next module
// do the work. So far it only takes its place in the chain.
#include "includes.h"
#include "smbd/smbd.h"

static int debug_class = DBGC_VFS;
#undef DBGC_CLASS
#define DBGC_CLASS debug_class

static int kavrin_connect(struct vfs_handle_struct* handle, const char* service, const char* user) {
    int result = SMB_VFS_NEXT_CONNECT(handle, service, user);

    if (result < 0) {
        return result;
    }
    DBG_INFO("%s connects to %s\n", user, service);
    return 0;
}

static void kavrin_disconnect(struct vfs_handle_struct* handle) {
    DBG_INFO("disconnect from %s\n", lp_const_servicename(SNUM(handle->conn)));
    SMB_VFS_NEXT_DISCONNECT(handle);
}

static struct vfs_fn_pointers kavrin_functions = {
    .connect_fn = kavrin_connect,
    .disconnect_fn = kavrin_disconnect,
};

// The one name that smbd looks for in a module it loads.
_PUBLIC_ NTSTATUS samba_init_module(TALLOC_CTX* context) {
    (void)context;
    NTSTATUS status = smb_register_vfs(SMB_VFS_INTERFACE_VERSION, "kavrin", &kavrin_functions);

    if (!NT_STATUS_IS_OK(status)) {
        return status;
    }
    debug_class = debug_add_class("kavrin");
    if (debug_class == -1) {
        debug_class = DBGC_VFS;
        DBG_ERR("no debug class of our own; messages go to 'vfs'\n");
    }
    return status;
}
