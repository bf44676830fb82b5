// Only in ThreadSanitizer builds: libraries that are not instrumented, and whose threads hand each
// other their own memory under their own locks, look like races. A report is suppressed only when
// the access was made by a C library function that such a library itself called; our code under
// liburcu's threads is still checked. glog takes its own lock apart when the process exits, while
// the state file system's thread, which has no end, may just have logged. The last line is the C
// library's time zone, which glog asks.

extern "C" [[gnu::weak]] const char* __tsan_default_suppressions() {  // NOLINT: the name is TSan's
  return "race:liburcu-cds.so\n"
         "race:liburcu-qsbr.so\n"
         "race:libglog.so\n"
         "race:tzset_internal\n";
}
