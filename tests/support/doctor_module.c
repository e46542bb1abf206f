/* Stands in for the Samba module where a test must know whether it can be loaded. */
int samba_init_module(void);

int samba_init_module(void) {
    return 0;
}
