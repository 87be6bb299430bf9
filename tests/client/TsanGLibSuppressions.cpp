// ThreadSanitizer sees neither GLib's own locks nor the hand-over of work
// between GDBus's thread and a main context (they are built on futexes in
// uninstrumented code), so the memory functions GLib calls on data it
// handed over itself look racy. Those calls are left out; everything our
// code touches is still checked.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so.0\n"
         "called_from_lib:libgio-2.0.so.0\n"
         "called_from_lib:libgobject-2.0.so.0\n";
}
