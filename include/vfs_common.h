/* Events: what happened on the share, for the event store, and who read what, for audit. A hook
 * initialises a message, fills in what it knows, stamps it and sends it; sending packs it into a
 * framed record and hands that to the staging buffer or the audit buffer.
 *
 * The messages themselves are generated from samba.proto and audit_events.proto. */
#ifndef KAVRIN_VFS_COMMON_H
#define KAVRIN_VFS_COMMON_H

#include <sys/types.h>

#include "audit_events.pb-c.h"
#include "eventstore.h"
#include "kavrin_cdefs.h"
#include "samba.pb-c.h"

KV_BEGIN_DECLS

/** The service account whose own work is not recorded; 0 until it is known. */
extern uid_t reserved_user_uid;

/** A frame for `size` bytes of payload. Its `size` field is `size` + 8 until a message is packed.
 *  @return a zeroed record that the caller frees, or null: a size below 1, no memory */
staging_data_t *alloc_staging_data(int size);

/** Packs an event into a framed record.
 *  @param ve borrowed
 *  @return a record that the caller frees; null for null, without memory, and for an event of root
 *          or of the reserved user, which is dropped */
staging_data_t *create_staging_data_buf(VFSEvent *ve);

/** The same for an audit event. */
staging_data_t *create_audit_data_buf(AuditEvent *ae);

/** Stamps process id, effective uid and time. @return 0 */
int pop_vfs_event(VFSEvent *ve);

/** Stamps the time. @return 0 */
int pop_audit_event(AuditEvent *ae);

/** Packs an event and hands it to the staging buffer. @return 0, also when the buffer refused it
 *  (which it tells the event store itself); -1 when no record was made */
int send_modify_vfs_event(VFSEvent *ve);

/** Packs an audit event of this user and hands it to the audit buffer. @return 0, also when the
 *  buffer refused it; -1 when no record was made */
int send_audit_vfs_event(AuditEvent *ae, uid_t uid);

/** The audit buffer of this process; null until init_audit_buffer(), and when a flush found no
 *  memory for the next one. */
extern staging_buffer_t *global_read_audit_buffer;

/** Creates the audit buffer with the configured size. An existing one is flushed and emptied, also
 *  when the flush failed. */
void init_audit_buffer(void);

/** Appends a record, flushing the buffer first when it is full or its time has come.
 *  @param data borrowed
 *  @return 0; -1: the record is not in the buffer */
int write_to_audit_buffer(staging_data_t *data);

/** Writes all audit records into a new file and replaces the buffer by an empty one. Works as root
 *  and restores the identity.
 *  @return 1: nothing to write; 0: written (or lost by a failed rename); -1: still in the buffer */
int flush_audit_buffer(void);

KV_END_DECLS

#endif
