// Defaults of the address sanitizer for the test program; others win over them in ASAN_OPTIONS.
// Freed memory is held back from reuse, but only 16 MiB of it: tests with damaged models allocate
// and free many times that, and touching ever new pages took three quarters of their time.
extern "C" const char* __asan_default_options();  // NOLINT: the sanitizer's own name

extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=16";
}
