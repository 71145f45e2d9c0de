// ThreadSanitizer settings for every test program.
#if defined(__SANITIZE_THREAD__)
// GLib is not instrumented and hands its main-context and allocator state
// between threads under futexes the race detector cannot see: calls made from
// inside GLib are not checked. Our own code stays fully checked.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libglib-2.0.so.0\n"; }
#endif
