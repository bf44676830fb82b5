// Only in ThreadSanitizer builds: libraries that are not instrumented, and whose threads hand each
// other their own memory under their own locks, look like races. A report is suppressed only when
// the access was made by a C library function that such a library itself called; our code under
// liburcu's threads is still checked. The last line is the C library's time zone, which glog asks.

extern "C" [[gnu::weak]] const char* __tsan_default_suppressions() {  // NOLINT: the name is TSan's
  return "race:liburcu-cds.so\n"
         "race:liburcu-qsbr.so\n"
         "race:tzset_internal\n";
}
