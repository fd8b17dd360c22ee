// ThreadSanitizer defaults for values_test; read by the sanitizer runtime only, inert elsewhere.
//
// cpprestsdk comes uninstrumented from the distribution, so ThreadSanitizer cannot see its atomics
// (shared_ptr counts, task states). The frees and condition-variable teardown that the library
// does through intercepted calls then look like races against the instrumented header code that
// used the same objects: 416 reports in one run, every one a free or teardown inside cpprestsdk
// (or libstdc++'s exception_ptr) of cpprestsdk's own tasks, requests, responses or exceptions.
// Ignoring the interceptor accesses of uninstrumented modules removes exactly those, while
// synchronisation through the library still counts, so a race in our code or in the host records
// is still reported (checked with a deliberate race between a pplx task and the main thread).
// A suppression file cannot do this: its entries also match the thread-creation stacks, and every
// worker thread is created inside cpprestsdk, so they would hide the races this test looks for.
extern "C" const char* __tsan_default_options() { return "ignore_noninstrumented_modules=1"; }
