/* kavrin: the namespace of a cloud file system on an SMB share. The whole public interface.
 *
 * Conventions of every call:
 *  1. read_kavrin_config() (or create_config_buffer() in the service that owns the configuration)
 *     comes first: each trace message asks the configuration table for the debug level.
 *  2. Results are codes: 0 / -1, an e_membe_shm_err, an e_vfs_enforce_perms_t, or null. Nothing
 *     throws. errno speaks only where a declaration says so.
 *  3. Impossible states (a damaged record, a grammar broken behind a checker) are assertions: they
 *     print their expression and end the process, in every build.
 *  4. Heap results are the caller's to free(); ACLs through free_ACL() first, path arrays through
 *     cleanup_path_array_smb4(). Arguments are borrowed unless a declaration says otherwise.
 *  5. The library starts no threads and takes no locks; one request at a time per process. A
 *     switch of identity changes the calling thread only.
 *  6. Messages go to syslog at LOG_INFO, prefixed with file, line and function, and only when the
 *     debug level reaches their threshold; a negative level silences all. */
#ifndef KAVRIN_H
#define KAVRIN_H

#include "eventstore.h"
#include "kavrin_getgrouplist.h"
#include "kavrin_lists.h"
#include "kavrin_perms.h"
#include "kavrin_stack.h"
#include "kavrin_structs.h"
#include "kavrin_utils.h"
#include "kavrin_vfs_utils.h"
#include "logging.h"
#include "manage_perms.h"
#include "mkperm_mem.h"
#include "mkperms_shm.h"
#include "perm_enforcer.h"
#include "perm_map.h"
#include "perm_utils.h"
#include "processing_functions.h"
#include "read_perms.h"
#include "regex_parser.h"
#include "vfs_common.h"

#endif
