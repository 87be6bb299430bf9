// GLib and GIO are not built with ThreadSanitizer: their own locking (futex
// based) is invisible to it, so the memory they hand between their worker
// threads and ours looks racy. Reports from inside those libraries are
// suppressed; our code stays checked.
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libgobject-2.0.so.0\n"
           "called_from_lib:libgio-2.0.so.0\n";
}
