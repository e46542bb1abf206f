/* The umbrella header is C11, warning-free, and may be included twice. */
#include "kavrin.h"

/* Every declared object is usable from C. */
int kavrin_header_as_c11(void);
int kavrin_header_as_c11(void) {
    kavrin_acl_t acl = {0};
    kavrin_ace_t ace = {0};
    ace.trustee_type = ACE_TYPE_USER;
    return oneway_list_push(&acl.ace_list_head, &ace.ace_list) == KVLIST_ERR_OK &&
           sizeof(kavrin_be_header_t) == 176 && sizeof(fs_elem_t) == 24 &&
           sizeof(global_param_t) == 1040 && PARAM_MAX_INDEX == 19;
}
