int kx_tiny(void) { return 7; }
