// Options the sanitizer runtime reads at start-up, for the element's tests only: they load
// GStreamer's plug-ins with dlopen, whose thread-local blocks are allocated by glibc at run time.
//
// GCC 12's runtime intercepts __tls_get_addr and takes any such block that starts 16 bytes past
// a page boundary for one with a glibc 2.19 header, reading a bogus address and size from the
// two words before it. When that happens, the leak check at exit scans the bogus range and its
// tracer dies on a segmentation fault, failing a test that passed; it depends on where malloc
// placed the block, so about one run in a hundred. Without the interception the leak check
// still scans every thread's stack and static TLS.
extern "C" const char* __asan_default_options() {
    return "intercept_tls_get_addr=0";
}
