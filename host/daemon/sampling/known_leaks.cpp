// What LeakSanitizer is not to tell at the end of a program that uses libproc2.

// Its buffers belong to the thread that reads processes, and nobody frees them when that ends. A program has one such
// thread, its sampler's.
// Weak, since it comes with each library of a program that reads processes.
extern "C" [[gnu::weak]] const char *__lsan_default_suppressions() {
    return "leak:libproc2\n";
}
