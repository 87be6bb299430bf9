// ThreadSanitizer cannot see GLib's own synchronisation (its mutexes and
// atomics live in the uninstrumented system libraries), so it reports races
// inside GLib, GObject and GIO that are none. Reports whose stack passes
// through those libraries are suppressed; races in our own code still show.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions()
{
    return "race:libglib-2.0.so\n"
           "race:libgobject-2.0.so\n"
           "race:libgio-2.0.so\n";
}
#endif
